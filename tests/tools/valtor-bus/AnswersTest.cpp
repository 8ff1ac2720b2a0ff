#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "message-node/RunningNode.h"
#include "support/Eventually.h"
#include "tools/ChildProcess.h"
#include "valtor-bus/Recording.h"

namespace valtor::test {
namespace {

using Texts = std::vector<std::string>;

// The real executable on a node with several participants, who all answer the same request.
class AnswersTest : public ::testing::Test {
 protected:
  // The script has the tool's command line as "$@".
  std::unique_ptr<ChildProcess> start(Texts arguments, const std::string& script = "exec \"$@\"",
                                      const std::string& input = "") {
    arguments.insert(arguments.begin(),
                     {VALTOR_BUS_EXECUTABLE, "--port", std::to_string(node.port())});
    auto tool = std::make_unique<ChildProcess>("exec >out 2>err; " + script, arguments);
    tool->say(input);
    tool->endInput();
    return tool;
  }

  // The last message on a path, once a tool has sent one.
  PassedMessage sent(const std::string& path) {
    PassedMessage message;
    EXPECT_TRUE(eventually([&] {
      for (const PassedMessage& one : node.passed()) {
        message = one.path == path ? one : message;
      }
      return message.path == path;
    }));
    return message;
  }

  // Answers the last message on the path with each text behind its identifier, from connection 101
  // on; all at once, so that no answer is late.
  void answer(const std::string& path, const Texts& texts) {
    const PassedMessage request = sent(path);
    const std::string identifier(request.body().substr(0, request.body().find(',')));
    int source = 101;
    std::string frames;
    for (const std::string& text : texts) {
      const std::string payload = "[\"RSP\",\"" + path + "\"," + std::to_string(source++) + "," +
                                  std::to_string(request.source) + ",0]\n" + identifier + "," +
                                  text + "}";
      frames += std::to_string(payload.size()) + ":" + payload + ";";
    }
    node->writeRaw("valtor-bus", frames);
  }

  RunningNode node;
};

const std::string kDone = R"("statusCode":200,"statusMsg":"OK")";
const std::string kRefusal = R"("statusCode":404,"details":{"n":12345678901234567890})";

std::string route(const std::string& status) {
  return R"("param":{"stat":[{"level":[0],"status":)" + status + "}]}";
}

TEST_F(AnswersTest, EveryParticipantIsHeard) {
  const std::string refused = " was refused by connection 10";
  const std::string why = ": 404, details {\"n\":12345678901234567890}\n";
  const struct {
    Texts arguments;
    std::string path;
    Texts answers;
    int exitCode;
    std::string out;
    std::string err;
  } cases[] = {
      {{"get", "a", "b"},
       "device",
       {kRefusal, R"("param":{"b":[],"a":[12345678901234567890]})",
        R"("param":{"b":{},"a":[1.0e2]})", R"("param":{"b":"\u007f\u0085","a":[]})"},
       0,
       "{\n\t\"b\":\t\"\\u007f\\u0085\",\n\t\"a\":\t[12345678901234567890, 1.0e2]\n}\n",
       ""},
      {{"set", "a=1"},
       "device",
       {kRefusal, kDone},
       0,
       "200 OK\n",
       "valtor-bus: refused by connection 101" + why},
      {{"set", "a=1"},
       "device",
       {kRefusal},
       1,
       "",
       "valtor-bus: SET on \"device\"" + refused + "1" + why},
      {{"send", "GET", "a", "{\"n\":1}", "--answers", "2"},
       "a",
       {"\"x\":1.0", kRefusal},
       1,
       "{\n\t\"id\":\t\"I\",\n\t\"x\":\t1.0\n}\n{\n\t\"id\":\t\"I\",\n\t\"statusCode\":\t404,\n\t"
       "\"details\":\t{\n\t\t\"n\":\t12345678901234567890\n\t}\n}\n",
       "valtor-bus: answer of connection 101:\nvaltor-bus: answer of connection 102:\n"
       "valtor-bus: GET on \"a\"" +
           refused + "2" + why},
      {{"route", "take", "--dest", "1", "--source", "2"},
       "route",
       {kDone, kRefusal, kDone},
       1,
       "200 OK\n200 OK\n",
       "valtor-bus: CMD on \"route\"" + refused + "2" + why},
      {{"route", "query", "--dest", "1-2"},
       "route",
       {route("[[1,[7]]]"), route("[[1,[7]],[2,[8]]]")},
       0,
       "destination 1 level 0 source 7\ndestination 2 level 0 source 8\n",
       ""},
      {{"route", "query", "--dest", "1-5", "--level", "0-1"},
       "route",
       {route("[[1,[7]],[4,[8]]]"), kRefusal},
       1,
       "destination 1 level 0 source 7\ndestination 4 level 0 source 8\n",
       "valtor-bus: no answer tells what feeds destination 1-5 level 1; destination 2-3,5 level 0\n"
       "  Refused by connection 102" +
           why},
      {{"status", "--check"},
       "device",
       {R"("param":{"connectionPoint":[]})"},
       1,
       "UNKNOWN: no connection points are listed by connection 101\n",
       "valtor-bus: no connection points are listed by connection 101\n"},
  };
  for (const auto& one : cases) {
    node.forget();
    Texts arguments = one.arguments;
    arguments.insert(arguments.end(), {"--timeout", "60"});
    const auto tool = start(arguments);
    if (one.arguments[0] == "status") {  // its second question is the one that counts
      ASSERT_TRUE(eventually([&] { return node.passed().size() == 3; }));
    }
    answer(one.path, one.answers);
    const std::string body(sent(one.path).body());
    EXPECT_EQ(tool->wait(), one.exitCode);
    std::string out = tool->out();
    const std::string identifier = body.substr(7, body.find('"', 7) - 7);
    for (std::size_t at = out.find(identifier); at != std::string::npos;
         at = out.find(identifier)) {
      out.replace(at, identifier.size(), "I");
    }
    EXPECT_EQ(out, one.out);
    EXPECT_EQ(tool->err(), one.err);
  }
}

TEST_F(AnswersTest, WhatIsNoJSONOrNoNumberIsRefusedBeforeAnythingIsSent) {
  const struct {
    Texts arguments;
    std::string error;
  } cases[] = {
      {{"set", "-"}, "standard input is not a JSON object, line 2, column 3: Missing a name"},
      {{"update", "--file", "/dev/null"}, "/dev/null is not a JSON object: it is empty"},
      {{"set", "a={b"}, "the value of \"a\" is no JSON: line 1, column 2"},
      {{"set", std::string(9999, 'x')}, "\"" + std::string(60, 'x') + "...\" is neither"},
      {{"send", "GET", "a", "--answers", "-1"}, "--answers: \"-1\" is no whole number from 1\n"},
      {{"replay", "a", "--speed", "nan"}, "--speed: \"nan\" is no factor above 0\n"},
      {{"get", "a", "--host", ""}, "--host: a name is needed\n"},
      {{"route", "take", "--dest", "1", "--level", "2,2", "--source", "1,3"},
       "--level: 2 stands there twice"},
  };
  for (const auto& one : cases) {
    const auto tool = start(one.arguments, "exec \"$@\"", "{\"a\":1,\n  =2}");
    EXPECT_EQ(tool->wait(), 2);
    EXPECT_NE(tool->err().find(one.error), std::string::npos) << tool->err();
  }
  EXPECT_TRUE(node.passed().empty());
  EXPECT_EQ(start({"route", "take", "--dest", "010", "--level", "5,3", "--source", "1,2",
                   "--user-id", "010", "--no-wait"})
                ->wait(),
            0);
  const PassedMessage take = sent("route");
  EXPECT_NE(take.body().find(R"("take":[{"level":[3,5],"status":[[10,[2,1]]],"userID":10}])"),
            std::string::npos)
      << take.body();
}

TEST_F(AnswersTest, ARecordingThatWasCutShortIsReplayedUpToThere) {
  const TemporaryFolder folder;
  const std::string file = folder.at("recording");
  const auto recorder =
      start({"record", file}, "trap '' XFSZ; ulimit -f 1; exec \"$@\"");  // in KiB
  ASSERT_TRUE(eventually([&] { return node.countEvents("SUBSCRIBE") == 1; }));
  const std::string body(300, 'x');
  for (int i = 0; i < 4; ++i) {
    node->inject(101, "NOT", "a", 0, "{\"n\":\"" + body + "\"}");
  }
  EXPECT_EQ(recorder->wait(), 1);
  EXPECT_NE(recorder->err().find("recorded 2 messages"), std::string::npos) << recorder->err();
  const std::string whole = fileContent(file);
  ASSERT_EQ(whole.back(), '\n');

  const std::string half = "{\"offset\":0,\"payl";
  const std::string nul = R"({"offset":0,"payload":"[\"NOT\",\"b\",3,0,0]\n{\u0000}"})"
                          "\n\n";
  const auto countReplayed = [&] {
    return node.countPassed([](const PassedMessage& one) { return one.kind == MessageKind::NOT; });
  };
  for (const std::string script : {"exec \"$@\" \"$FILE\"", "cat \"$FILE\" | \"$@\" -"}) {
    folder.write("recording", whole + nul + half);
    node.forget();
    const auto replay = start({"replay", "--no-timing"}, "FILE=" + file + "; " + script);
    EXPECT_EQ(replay->wait(), 0);
    EXPECT_NE(replay->err().find("is unfinished and was left out"), std::string::npos);
    EXPECT_EQ(countReplayed(), 3U);
  }
  RecordingReader reader(file);
  ASSERT_TRUE(reader.next() && reader.next());
  EXPECT_EQ(reader.next()->payload, std::string("[\"NOT\",\"b\",3,0,0]\n{") + '\0' + "}");
  node.forget();
  folder.write("recording", whole + half + "\n" + nul);
  EXPECT_EQ(start({"replay", file})->wait(), 1);
  EXPECT_EQ(countReplayed(), 0U);
}

}  // namespace
}  // namespace valtor::test
