#include <regex>

#include "tools/valtor-bus/ToolFixture.h"

namespace valtor::test {
namespace {

using AnswersTest = ToolFixture;

const std::string kDone = R"("statusCode":200,"statusMsg":"OK")";
const std::string kRefusal = R"("statusCode":404,"details":{"n":12345678901234567890})";
const std::string kRefused = " was refused by connection 10";
const std::string kWhy = ": 404, details {\"n\":12345678901234567890}\n";

std::string route(const std::string& status) {
  return R"("param":{"stat":[{"level":[0],"status":)" + status + "}]}";
}

// A command line, what comes back and out, and the kind and body of what it sends (anything if
// empty). "I" stands for the identifier.
const struct {
  Texts arguments;
  Texts answers;
  std::string out;
  std::string sent = {};
  std::string err = {};
  int exitCode = 0;
} kExchanges[] = {
    // What is sent, with numbers as they were written.
    {{"set", R"({"a": 12345678901234567890})"},
     {kDone},
     "200 OK\n",
     R"(SET "param":{"a":12345678901234567890}})"},
    {{"update", "a=1", "b=x y"},
     {R"("statusCode":201)"},
     "201\n",
     R"(UPDATE "param":{"a":1,"b":"x y"}})"},
    {{"set", "-"}, {R"("x":1)"}, "RSP\n", R"(SET "param":{"from":"input"}})"},
    {{"del", "--base", "point", "a", "b"},
     {kDone},
     "200 OK\n",
     R"(DEL "objectBase":"point","objectName":["a","b"]})"},
    {{"route", "take", "--dest", "1-2", "--level", "0,2-3", "--source", "7,8,9"},
     {kDone},
     "200 OK\n",
     R"(CMD "take":[{"level":[0,2,3],"status":[[1,[7,8,9]],[2,[7,8,9]]]}],"userID":0})"},
    {{"route", "take", "--dest", "010", "--level", "5,3", "--source", "1,2", "--user-id", "010"},
     {kDone},
     "200 OK\n",
     R"(CMD "take":[{"level":[3,5],"status":[[10,[2,1]]],"userID":10}],"userID":10})"},
    {{"route", "query", "--dest", "2,5,1", "--level", "0-1"},
     {R"("param":{"stat":[{"level":[0,1],"status":[[1,[7]],[2,[8,9]],[5,[3]]]}]})"},
     "destination 1 level 0 source 7\ndestination 1 level 1 source 7\n"
     "destination 2 level 0 source 8\ndestination 2 level 1 source 9\n"
     "destination 5 level 0 source 3\ndestination 5 level 1 source 3\n",
     R"(CMD "stat":[{"level":[0,1],"destRange":[1,2]},{"level":[0,1],"destRange":[5,5]}],"userID":0})"},
    // Several answers, of which some are refusals.
    {{"get", "a", "b"},
     {kRefusal, R"("param":{"b":[],"a":[12345678901234567890]})", R"("param":{"b":{},"a":[1.0e2]})",
      R"("param":{"b":"\u007f\u0085","a":[]})"},
     "{\n\t\"b\":\t\"\\u007f\\u0085\",\n\t\"a\":\t[12345678901234567890, 1.0e2]\n}\n",
     R"(GET "param":{"objectName":["a","b"]},"objectName":["a","b"]})"},
    {{"get", "a", "b", "c"},
     {R"("param":{"b":7})", kRefusal},
     "{\n\t\"b\":\t7\n}\n",
     "",
     "valtor-bus: no answer has a value for [\"a\",\"c\"]\n  Refused by connection 102" + kWhy,
     1},
    {{"set", "a=1"},
     {kRefusal, kDone},
     "200 OK\n",
     "",
     "valtor-bus: refused by connection 101" + kWhy},
    {{"set", "a=1"},
     {kRefusal},
     "",
     "",
     "valtor-bus: SET on \"device\"" + kRefused + "1" + kWhy,
     1},
    {{"send", "GET", "device", "{\"n\":1}", "--answers", "2"},
     {"\"x\":1.0", kRefusal},
     "{\n\t\"id\":\t\"I\",\n\t\"x\":\t1.0\n}\n{\n\t\"id\":\t\"I\",\n\t\"statusCode\":\t404,\n\t"
     "\"details\":\t{\n\t\t\"n\":\t12345678901234567890\n\t}\n}\n",
     "",
     "valtor-bus: answer of connection 101:\nvaltor-bus: answer of connection 102:\n"
     "valtor-bus: GET on \"device\"" +
         kRefused + "2" + kWhy,
     1},
    {{"route", "take", "--dest", "1", "--source", "2"},
     {kDone, kRefusal, kDone},
     "200 OK\n200 OK\n",
     "",
     "valtor-bus: CMD on \"route\"" + kRefused + "2" + kWhy,
     1},
    {{"route", "query", "--dest", "1-2"},
     {route("[[1,[7]]]"), route("[[1,[7]],[2,[8]]]")},
     "destination 1 level 0 source 7\ndestination 2 level 0 source 8\n"},
    {{"route", "query", "--dest", "1-5", "--level", "0-1"},
     {route("[[1,[7]],[4,[8]]]"), kRefusal},
     "destination 1 level 0 source 7\ndestination 4 level 0 source 8\n",
     "",
     "valtor-bus: no answer tells what feeds destination 1-5 level 1; destination 2-3,5 level 0\n"
     "  Refused by connection 102" +
         kWhy,
     1},
};

TEST_F(AnswersTest, WhatWasAskedIsSentAndEveryParticipantIsHeard) {
  // All at once, since most wait some time for further answers.
  const auto nameOf = [](std::size_t row) { return "tool" + std::to_string(row); };
  std::vector<std::unique_ptr<ChildProcess>> tools;
  for (const auto& one : kExchanges) {
    Texts arguments = {"--name", nameOf(tools.size())};
    arguments.insert(arguments.end(), one.arguments.begin(), one.arguments.end());
    arguments.insert(arguments.end(), {"--timeout", "60"});
    tools.push_back(start(arguments, R"({"from":"input"})"));
  }
  std::vector<PassedMessage> requests;
  for (const auto& one : kExchanges) {
    const std::string name = nameOf(requests.size());
    const std::string path = one.arguments[0] == "route" ? "route" : "device";
    requests.push_back(answerNext(path, one.answers, name));
  }
  for (std::size_t row = 0; row < tools.size(); ++row) {
    const auto& one = kExchanges[row];
    SCOPED_TRACE(::testing::PrintToString(one.arguments));
    EXPECT_EQ(tools[row]->wait(), one.exitCode);
    const std::string id = identifier(requests[row]);  // {"id":"..."
    const std::string value = id.substr(7, id.size() - 8);
    EXPECT_EQ(std::regex_replace(tools[row]->out(), std::regex(value), "I"), one.out);
    EXPECT_EQ(tools[row]->err(), one.err);
    EXPECT_TRUE(one.sent.empty() || content(requests[row]) == one.sent) << content(requests[row]);
  }
  EXPECT_EQ(start({"send", "NOT", "device", "{\"id\":\"mine\"}", "--dest", "5"})->wait(), 0);
  const PassedMessage sent = nextSent("device");
  EXPECT_EQ(sent.destination, 5);
  EXPECT_EQ(sent.body(), "{\"id\":\"mine\"}");
}

TEST_F(AnswersTest, WrongUsageIsRefusedBeforeAnythingIsSentAndAMissingNodeIsNamed) {
  const struct {
    Texts arguments;
    std::string error;
  } cases[] = {
      {{}, "Usage: valtor-bus"},
      {{"frob"}, "\"frob\" is no command"},
      {{"watch", "--kind", "no"}, "no"},
      {{"watch", "--json", "--raw"}, "--json"},
      {{"set", "no pair"}, "\"no pair\" is neither"},
      {{"send", "GET", "a\"b"}, "path"},
      {{"send", "GET", std::string(250, 'a')}, "path"},
      {{"send", "GET", "a", "[]"}, "JSON object"},
      {{"get", "a", "--timeout", "-1"}, "\"-1\" is no number of seconds"},
      {{"route", "take", "--dest", "2-1", "--source", "1"}, "--dest"},
      {{"route", "take", "--dest", "1", "--level", "0-2", "--source", "1,2"}, "2 sources for 3"},
      {{"set", "-"}, "standard input is not a JSON object, line 2, column 3: Missing a name"},
      {{"update", "--file", "/dev/null"}, "/dev/null is not a JSON object: it is empty"},
      {{"set", "a={b"}, "the value of \"a\" is no JSON: line 1, column 2"},
      {{"set", std::string(9999, 'x')}, "\"" + std::string(60, 'x') + "...\" is neither"},
      {{"send", "GET", "a", "--answers", "-1"}, "--answers: \"-1\" is no whole number from 1\n"},
      {{"replay", "a", "--speed", "nan"}, "--speed: \"nan\" is no factor above 0\n"},
      {{"watch", "--format", "a%{b}"}, "\"%{b}\" stands for nothing\n  There are %{date}, "},
      {{"status", "--probe"}, "--probe"},
      {{"get", "a", "--host", ""}, "--host: a name is needed\n"},
      {{"route", "take", "--dest", "1", "--level", "2,2", "--source", "1,3"},
       "--level: 2 stands there twice"},
  };
  for (const auto& one : cases) {
    const auto tool = start(one.arguments, "{\"a\":1,\n  =2}");
    EXPECT_EQ(tool->wait(), 2) << ::testing::PrintToString(one.arguments);
    EXPECT_NE(tool->err().find(one.error), std::string::npos) << tool->err();
    EXPECT_EQ(tool->out(), "");
  }
  EXPECT_TRUE(node.passed().empty());
  node->stopListening();
  const auto alone = start({"watch"});
  EXPECT_EQ(alone->wait(), 1);
  EXPECT_NE(alone->err().find(": Connection refused\n  Is a message node"), std::string::npos);
}

}  // namespace
}  // namespace valtor::test
