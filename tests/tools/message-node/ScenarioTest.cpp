#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <regex>
#include <sys/wait.h>
#include <utility>

#include "app/util/Mutex.h"
#include "message-node/CannedAnswers.h"
#include "message-node/Scenario.h"
#include "support/TemporaryFolder.h"
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
  // Gives the node the turns in which it would do what it must not do.
  void settle() {
    for (int turn = 0; turn < 10; ++turn) {
      (*node)->role();
    }
  }
  std::size_t receivedFrom(const std::string& name) {
    return node->countPassed(
        [&](const PassedMessage& message) { return message.from == name && message.path == "db"; });
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

TEST_F(ScenarioStepTest, AReadingPauseHoldsForItsNames) {
  follow(R"([{"after": "\"go.1\"", "pauseReading": "north"},
             {"after": "\"go.2\"", "resumeReading": "north"},
             {"after": "\"go.3\"", "pauseReading": "*"},
             {"after": "\"go.4\"", "resumeReading": "*"}])");
  join("north", 1, {});
  join("south", 2, {});
  std::size_t sent = 0;
  for (const std::string paused : {"north", "", "north south", ""}) {
    step(static_cast<int>(++sent));
    for (const std::string name : {"north", "south"}) {
      peers.at(name)->sendPayload("[\"NOT\", \"db\", 1, 0, 0]\n{}");
      if (paused.find(name) == std::string::npos) {
        ASSERT_TRUE(eventually([&] { return receivedFrom(name) == sent; })) << sent << name;
      } else {
        settle();
        EXPECT_LT(receivedFrom(name), sent) << name;
      }
    }
  }
}

TEST_F(ScenarioStepTest, ConnectionsEndAsTheStepSaysAndAFailureIsReported) {
  follow(R"([{"after": "\"go.1\"", "reset": "north"}, {"after": "\"go.2\"", "close": "south"},
             {"after": "\"go.3\"", "close": "north", "note": "gone"},
             {"after": "\"go.4\"", "raw": {"to": "east", "hex": "353a7b7d0a3aFf3b"}}])");
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
}

// The text of a manual page's examples that begin like this.
std::vector<std::string> pageExamples(char first) {
  std::string page = fileContent(VALTOR_NODE_MAN_PAGE);
  page = std::regex_replace(page, std::regex(R"(\\e)"), "\\");
  std::vector<std::string> examples;
  for (std::size_t at = page.find(".nf\n"); at != std::string::npos; at = page.find(".nf\n", at)) {
    at += 4;
    if (page.at(at) == first) {
      examples.push_back(page.substr(at, page.find(".fi\n", at) - at));
    }
  }
  return examples;
}

TEST_F(ScenarioStepTest, ThePagesParticipantRepliesWithTheIdentifierOfEachQuestion) {
  std::string steps;
  for (const std::string& example : pageExamples('[')) {
    EXPECT_NO_THROW(Scenario{example}) << example;
    steps = example.find("\"reply\"") != std::string::npos ? example : steps;
  }
  follow(steps);
  join("panel", 490, {});
  const std::string head = "[\"GET\", \"tally\", 490, 0, 0]\n";
  say("panel", head + R"({"id":"1@panel","lamp":1})");
  for (const std::string id : {"2", "3"}) {
    say("panel", head + R"({"level":1,"id":")" + id + R"("})");
    EXPECT_EQ(peers.at("panel")->readFrame(),
              "[\"RSP\", \"tally\", 700, 490, 0]\n{\"id\":\"" + id +
                  R"(","requestCommand":"GET","statusCode":200,"statusMsg":"OK",)"
                  R"("param":{"on":[4,7]}})");
  }
  (*node)->inject(0, "GET", "tally", 0, R"({"id":"4","level":1})");
  EXPECT_TRUE(eventually(
      [&] { return countOf("failed: the message has no \"id\", or its sender none") == 1; }));
}

std::string faultOf(const std::function<void()>& load) {
  try {
    load();
    return "none";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

TEST(WrittenJSONTest, WhatIsWrittenTwiceOrTooMuchIsRefused) {
  const std::pair<std::string, std::string> steps[] = {
      {R"({"at":0,"at":1,"role":"a"})", R"("at" twice)"},
      {R"({"at":1,"role":"a","note":"b","note":"c"})", R"("note" twice)"},
      {R"({"at":1,"send":{"from":1,"from":2,"kind":"GET","path":""}})",
       R"("send" has "from" twice)"},
      {R"({"at":1,"raw":{"to":"*","bytes":"a","hex":"00"}})",
       R"("raw" has both "bytes" and "hex")"},
      {R"({"at":1,"every":0.0001,"role":"a"})", R"("every" is below 0.001)"},
      {R"({"at":1,"reply":{"from":1,"body":{}}})", R"("reply" needs "after")"},
      {R"({"after":"a","reply":{"from":1,"body":{"id":"1"}}})", R"("body" has an "id" of its own)"},
      {R"({"after":[],"role":"a"})", R"("after" is empty)"},
      {R"({"after":["a",1],"role":"a"})", R"("after" holds something else than texts)"},
      {R"({"at":0,"answers":{"db":5}})", R"("db" is not an object)"},
  };
  for (const auto& [text, fault] : steps) {
    const std::string list = "[" + text + "]";
    EXPECT_EQ(faultOf([&] { const Scenario scenario(list); }), "step 1: " + fault) << text;
  }
  const std::pair<std::string, std::string> answers[] = {
      {"", "no JSON from line 1 on"},
      {"{\"db\":{}\n}\n{}", "no JSON from line 3 on"},
      {"[]", "not an object"},
      {R"({"db":[1]})", R"("db" is not an object)"},
      {R"({"bd":{}})", R"(an unknown member "bd")"},
  };
  for (const auto& [text, fault] : answers) {
    EXPECT_EQ(faultOf([&, &text = text] { const CannedAnswers canned(text); }), fault) << text;
  }
  for (const std::string& example : pageExamples('{')) {
    EXPECT_NO_THROW(CannedAnswers{example}) << example;
  }
}

// A shell command in a folder of its own, in which $node is valtor-node; its input is a pipe.
class NodeCommand {
 public:
  explicit NodeCommand(const std::string& command)
      : input_(popen(
            ("node=" VALTOR_NODE_EXECUTABLE "; cd " + folder_.path() + "; " + command).c_str(),
            "we")) {}
  ~NodeCommand() { end(); }
  NodeCommand(const NodeCommand&) = delete;
  NodeCommand& operator=(const NodeCommand&) = delete;

  void say(const std::string& line) const {
    std::fputs((line + "\n").c_str(), input_);
    std::fflush(input_);
  }
  std::string file(const std::string& name) const { return fileContent(folder_.at(name)); }
  // Waits for the end; the exit status.
  int end() { return input_ != nullptr ? WEXITSTATUS(pclose(std::exchange(input_, nullptr))) : -1; }

 private:
  const TemporaryFolder folder_;
  FILE* input_;
};

TEST(NodeCommandTest, ListensLateWhenAScenarioSaysSoAndLogsNothingBesideItsTrace) {
  NodeCommand command(
      R"(echo '[{"at": 0, "listen": false}, {"at": 0.1, "listen": true}]' >late.json
         exec $node --port 0 --scenario late.json >out 2>err)");
  EXPECT_TRUE(eventually([&] { return command.file("out").find("LISTEN ") != std::string::npos; }));
  EXPECT_LT(command.file("out").find("STEP 2 listen"), command.file("out").find("LISTEN "));
  command.say("role standby\nquit");
  EXPECT_EQ(command.end(), 0);
  EXPECT_EQ(command.file("err"), "");
}

TEST(NodeCommandTest, EndsWithTheReaderOfItsOutput) {
  NodeCommand command("{ timeout 60 $node --port 0 2>err; echo $? >status; } | head -1 >out");
  EXPECT_EQ(command.end(), 0);
  EXPECT_NE(command.file("out").find("LISTEN "), std::string::npos);
  EXPECT_EQ(command.file("status"), "1\n");
  EXPECT_EQ(command.file("err"), "valtor-node: nobody reads standard output any more\n");
}

TEST(NodeCommandTest, NamesTheFileAtFaultAndRefusesAnEmptyRole) {
  NodeCommand command("printf '{}\\n}' >bad.json; exec $node --port 0 -a bad.json 2>err");
  EXPECT_EQ(command.end(), 1);
  EXPECT_EQ(command.file("err"), "valtor-node: bad.json: no JSON from line 2 on\n");
  EXPECT_GT(NodeCommand("exec $node --port 0 --role '' 2>err").end(), 1);
}

TEST(NodeCommandTest, TellsItsVersionAndHelpsWithAllThatThePageDescribes) {
  NodeCommand version("exec $node --version >out");
  EXPECT_EQ(version.end(), 0);
  EXPECT_TRUE(
      std::regex_match(version.file("out"), std::regex("valtor-node \\d+\\.\\d+\\.\\d+\n")));
  NodeCommand help("exec $node --help >out");
  EXPECT_EQ(help.end(), 0);
  std::string page = fileContent(VALTOR_NODE_MAN_PAGE);
  page.erase(page.find(".SH SEE ALSO"));
  const std::regex described(R"(\\fB("\w+")|\.B[RI]? (?:\\-\w ", " )?((?:\\-\\-)?[a-z\-\\]+)\b)");
  int count = 0;
  for (std::sregex_iterator at(page.begin(), page.end(), described), last; at != last; ++at) {
    const std::string name = std::regex_replace(at->str(1) + at->str(2), std::regex(R"(\\)"), "");
    EXPECT_NE(help.file("out").find(name), std::string::npos) << name;
    ++count;
  }
  EXPECT_GT(count, 25);
}

}  // namespace
}  // namespace valtor::test
