#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <iterator>
#include <regex>

#include "app/util/Mutex.h"
#include "message-node/CannedAnswers.h"
#include "message-node/Scenario.h"
#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

// A node that follows a scenario, with what the scenario reports.
class ScenarioStepTest : public NodeFixture {
 protected:
  ~ScenarioStepTest() override { node.reset(); }

  void follow(const std::string& steps) {
    scenario_ = std::make_unique<Scenario>(steps);
    MessageNode::Options options;
    options.onEvent = [this](const std::string& line) { scenario_->observe(line); };
    options.onMessage = [this](const PassedMessage& message) { scenario_->observe(message); };
    node = std::make_unique<RunningNode>(std::move(options));
    (*node)->runAfter({}, [this] {
      scenario_->start(**node, [this](const std::string& line) {
        scenario_->observe(line);
        const Locked<Mutex> lock(lock_);
        reports_.push_back(line);
      });
    });
  }

  std::vector<std::string> reports() {
    const Locked<Mutex> lock(lock_);
    return reports_;
  }
  int countOf(const std::string& text) {
    const Locked<Mutex> lock(lock_);
    int count = 0;
    for (const std::string& line : reports_) {
      count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
  }
  // Sets off the step that waits for "go." and the number, and waits until it is done.
  void step(int number) {
    const std::string text = std::to_string(number);
    ASSERT_TRUE((*node)->inject(1, "NOT", "go." + text, 0, "{}"));
    ASSERT_TRUE(eventually([&] { return countOf("STEP " + text + " ") > 0; }));
    (*node)->role();  // the report comes before the action, this after both
  }

 private:
  std::unique_ptr<Scenario> scenario_;
  Mutex lock_;
  std::vector<std::string> reports_ VALTOR_GUARDED_BY(lock_);
};

TEST_F(ScenarioStepTest, AStepIsDoneAsOftenAndAsFarApartAsItSays) {
  follow(R"([{"at": 0.05, "role": "between"},
             {"at": 0, "every": 0.05, "repeat": 2, "role": "twice"},
             {"at": 0, "every": 0.001, "repeat": 3, "role": "thrice"},
             {"at": 0, "every": 0.02, "role": "on"},
             {"after": "STEP 1 ", "delay": 0.05, "role": "end"}])");
  EXPECT_TRUE(eventually([&] { return countOf("STEP 5 ") == 1 && countOf("STEP 4 ") > 5; }));
  EXPECT_EQ(countOf("STEP 2 "), 2);
  EXPECT_EQ(countOf("STEP 3 "), 3);
  const auto lines = reports();
  const auto between = std::find(lines.begin(), lines.end(), "STEP 1 role");
  EXPECT_EQ(std::count(lines.begin(), between, "STEP 2 role"), 1);
}

// What "*" says takes the place of what was said before; a name after it is an exception.
TEST_F(ScenarioStepTest, AWritingPauseHoldsForItsNames) {
  follow(R"([{"after": "\"go.1\"", "pauseWriting": "north"},
             {"after": "\"go.2\"", "resumeWriting": "*"},
             {"after": "\"go.3\"", "pauseWriting": "*"},
             {"after": "\"go.4\"", "resumeWriting": "north"},
             {"after": "\"go.5\"", "resumeWriting": "south"}])");
  join("north", 1, {"tally"});
  join("south", 2, {"tally"});
  int number = 0;
  for (const char* waiting : {"north ", "", "north south ", "south ", ""}) {
    step(++number);
    ASSERT_TRUE((*node)->inject(3, "NOT", "tally", 0, "{}"));
    std::string found;
    for (const NodeParticipant& one : (*node)->participants()) {
      found += one.unsentBytes > 0 ? one.name + " " : "";
    }
    EXPECT_EQ(found, waiting) << number;
  }
  EXPECT_EQ(received("north").size(), 5U);  // late, but all
}

TEST_F(ScenarioStepTest, ConnectionsEndAsTheStepSaysAndAFailureIsReported) {
  follow(R"([{"after": "\"go.1\"", "reset": "north"}, {"after": "\"go.2\"", "close": "south"},
             {"after": "\"go.3\"", "close": "north", "note": "gone"},
             {"after": "\"go.4\"", "raw": {"to": "east", "hex": "353a7b7d0a3aFf3b"}},
             {"after": "\"go.5\"", "listen": false}, {"after": "\"go.6\"", "listen": true}])");
  const auto errorAtTheEnd = [](ScriptedPeer& peer) {
    errno = 0;
    EXPECT_TRUE(peer.waitForHangUp());
    return errno;
  };
  ScriptedPeer& north = join("north", 1, {});
  ScriptedPeer& south = join("south", 2, {});
  ScriptedPeer& east = join("east", 3, {});
  step(1);
  EXPECT_EQ(errorAtTheEnd(north), ECONNRESET);
  step(2);
  EXPECT_EQ(errorAtTheEnd(south), 0);
  step(3);
  EXPECT_EQ(reports().back(), "STEP 3 close (gone) failed: no connection has the name north");
  step(4);
  EXPECT_EQ(east.readFrame(), "{}\n:\xff");
  const uint16_t port = node->port();
  step(5);
  EXPECT_EQ(connectTo(port), nullptr);
  step(6);
  EXPECT_NE(connectTo(port), nullptr);
}

// The manual page's examples; one begins with a line ".nf".
std::vector<std::string> pageExamples() {
  const std::string page =
      std::regex_replace(fileContent(VALTOR_NODE_MAN_PAGE), std::regex(R"(\\e)"), "\\");
  const std::regex example("\\.nf\n([^]*?)\\.fi\n");
  std::vector<std::string> texts;
  std::copy(std::sregex_token_iterator(page.begin(), page.end(), example, 1), {},
            std::back_inserter(texts));
  return texts;
}

TEST_F(ScenarioStepTest, ThePagesParticipantRepliesWithTheIdentifierOfEachQuestion) {
  std::string reply;
  for (const std::string& example : pageExamples()) {
    if (example[0] == '[') {
      EXPECT_NO_THROW(Scenario{example}) << example;
      reply = example.find("\"reply\"") != std::string::npos ? example : reply;
    } else if (example[0] == '{') {
      EXPECT_NO_THROW(CannedAnswers{example}) << example;
    }
  }
  follow(reply);
  join("panel", 490, {});
  const std::string head = "[\"GET\", \"tally\", 490, 0, 0]\n";
  say("panel", head + R"({"id":"1@panel","lamp":1})");
  for (const std::string id : {"2", "3"}) {
    say("panel", head + R"({"level":1,"id":")" + id + R"("})");
  }
  (*node)->inject(0, "GET", "tally", 0, R"({"id":"4","level":1})");
  for (const std::string id : {"2", "3"}) {
    EXPECT_EQ(peers.at("panel")->readFrame(),
              "[\"RSP\", \"tally\", 700, 490, 0]\n{\"id\":\"" + id +
                  R"(","requestCommand":"GET","statusCode":200,"statusMsg":"OK",)"
                  R"("param":{"on":[4,7]}})");
  }
  EXPECT_TRUE(eventually(
      [&] { return countOf("failed: the message has no \"id\", or its sender none") == 1; }));
}

// What loading the text complains of.
template <class Written>
std::string faultOf(const std::string& text) {
  return thrownBy([&] { const Written written(text); });
}

TEST(WrittenJSONTest, AFaultIsNamedWithItsPlaceAndTheExamplesHaveNone) {
  using Cases = std::initializer_list<std::pair<std::string, std::string>>;
  for (const auto& [text, fault] :
       Cases{{"[\n{\"at\": 1,\n", "no JSON from line 3 on"},
             {"{}", "not a list of steps"},
             {R"([{"at":1,"role":"active"},{"at":1}])", "step 2: no action"}}) {
    EXPECT_EQ(faultOf<Scenario>(text), fault) << text;
  }
  for (const auto& [step, fault] : Cases{
           {R"("at":1,"role":"a","close":"b")", "more than one action: role and close"},
           {R"("role":"active")", R"(needs either "at" or "after")"},
           {R"("at":-1,"role":"a")", R"("at" is not a number of seconds from 0 to 1000000)"},
           {R"("at":1,"role":"active","repeat":2)", R"("repeat" needs "every")"},
           {R"("at":1,"rolle":"active")", R"(unknown member "rolle")"},
           {R"("at":1,"send":{"from":1,"kind":"get"})", R"("get" is no kind of message)"},
           {R"("at":1,"send":{"from":1,"kind":"GET"})", R"("send" has no "path")"},
           {R"("at":1,"raw":{"to":"*","hex":"0g"})", R"("hex" is not pairs of hexadecimal digits)"},
           {R"("at":0,"at":1,"role":"a")", R"("at" twice)"},
           {R"("at":1,"role":"a","note":"b","note":"c")", R"("note" twice)"},
           {R"("at":1,"send":{"from":1,"from":2,"kind":"GET","path":""})",
            R"("send" has "from" twice)"},
           {R"("at":1,"raw":{"to":"*","bytes":"a","hex":"00"})",
            R"("raw" has both "bytes" and "hex")"},
           {R"("at":1,"every":0.0001,"role":"a")", R"("every" is below 0.001)"},
           {R"("at":1,"reply":{"from":1,"body":{}})", R"("reply" needs "after")"},
           {R"("after":"a","reply":{"from":1,"body":{"id":"1"}})",
            R"("body" has an "id" of its own)"},
           {R"("after":[],"role":"a")", R"("after" is empty)"},
           {R"("after":["a",1],"role":"a")", R"("after" holds something else than texts)"},
           {R"("at":0,"answers":{"db":5})", R"("db" is not an object)"}}) {
    EXPECT_EQ(faultOf<Scenario>("[{" + step + "}]"), "step 1: " + fault) << step;
  }
  for (const auto& [text, fault] : Cases{{"", "no JSON from line 1 on"},
                                         {"{\"db\":{}\n}\n{}", "no JSON from line 3 on"},
                                         {"[]", "not an object"},
                                         {R"({"db":[1]})", R"("db" is not an object)"},
                                         {R"({"bd":{}})", R"(an unknown member "bd")"}}) {
    EXPECT_EQ(faultOf<CannedAnswers>(text), fault) << text;
  }
  for (const auto& file : std::filesystem::directory_iterator(VALTOR_NODE_EXAMPLES)) {
    EXPECT_EQ(faultOf<Scenario>(fileContent(file.path())), "") << file.path();
  }
}

}  // namespace
}  // namespace valtor::test
