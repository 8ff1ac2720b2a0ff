#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <utility>
#include <vector>

#include "bus/BusSupport.h"
#include "bus/message/PellInternalMessage.h"
#include "bus/message/PellInternalStreamParser.h"
#include "support/LogCapture.h"

namespace valtor {
namespace {

using test::received;
using Lines = std::vector<test::LogLine>;

// White space, number spelling and a number beyond what a double holds.
const std::string kOddBody = "{ \"id\" : \"7@x\",\t\"n\":1.50,\"big\":12345678901234567890 }";

TEST(PellInternalMessage, HeaderFieldsFollowTheirElements) {
  // A header line, the one that it leaves as, and the names of both ends.
  const struct {
    std::string line, written, names;
  } cases[] = {
      {R"(["GET", "system", 490, 100, 0])", R"(["GET", "system", 490, 100, 0])", "|"},
      {R"(["ACK", "", -0, 007, 0])", R"(["ACK", "", 0, 7, 0])", "|"},
      {R"(["NAK", "a", 2147483648, -2147483649, 0])", R"(["NAK", "a", 2147483647, -2147483648, 0])",
       "|"},
      {R"(["CMD", "a", 1e2, 1.9, 0])", R"(["CMD", "a", 100, 1, 0])", "|"},
      {R"(["SET","",1,2,"datehere"])", R"(["SET", "", 1, 2, 0])", "|"},
      {R"( [ "UPDATE" , "a.b" , -3 , 2.9 , null , 7 ] x)", R"(["UPDATE", "a.b", -3, 2, 0])", "|"},
      {R"(["DEL","a","12@node","0x10@x@y"])", R"(["DEL", "a", 12, 16, 0])", "node|x@y"},
      {R"(["CMD","a","12@","010@a"])", R"(["CMD", "a", 12, 8, 0])", "|a"},
      {R"(["CMDRSP","a","@x","12y@x"])", R"(["CMDRSP", "a", 0, 0, 0])", "|"},
      {R"(["CMDNOT","a","000000000000005@x","0000000000000005@x"])", R"(["CMDNOT", "a", 5, 0, 0])",
       "x|"},
      {R"(["ACK","a","2147483648@x","-2147483648@y"])", R"(["ACK", "a", 0, -2147483648, 0])", "|y"},
      {R"(["NAK","a",1e99,{"b":1}])", R"(["NAK", "a", 2147483647, 0, 0])", "|"},
      {R"(["RSP","a",true,"12"])", R"(["RSP", "a", 0, 0, 0])", "|"},
      {R"(["NOT","a",1,2])", R"(["NOT", "a", 1, 2, 0])", "|"}};
  const test::LogCapture log;
  for (const auto& [line, written, names] : cases) {
    const PellInternalMessage message = received(line + "\n" + kOddBody);
    EXPECT_EQ(message.encode(), written + "\n" + kOddBody);
    EXPECT_EQ(message.header.sourceName + "|" + message.header.destName, names) << line;
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(PellInternalMessage, HeaderThatBreaksARuleIsNotDecoded) {
  for (const std::string line :
       {"", "[]", R"({"0":"GET","1":"a","2":1,"3":2})", R"([7,"a",1,2])", R"(["get","a",1,2])",
        R"(["GET","a",1])", R"(["GET",5,1,2])", R"(["NOT","a\"b",1,2])", R"(["NOT","a\\b",1,2])",
        R"(["NOT","a\u001fb",1,2])", R"(["NOT","a\u0000b",1,2])"}) {
    const test::LogCapture log;
    EXPECT_FALSE(received(line + "\n{\"id\":\"1\"}").isDecoded());
    EXPECT_EQ(log.lines(),
              (Lines{{LOG_INFO, "PellInternalMessage header decode error:" + line + "\n"}}));
  }
  EXPECT_FALSE(received("[\"GET\",\"a\",1,2" + std::string(65536, ' ') + "]\n").isDecoded());
}

TEST(PellInternalMessage, ReceivedBodyCrossesByteForByteForWhoeverOnlyLooks) {
  const std::string line = "[\"NOT\", \"a\", 1, 2, 0]\n";
  const std::string payload = line + kOddBody;
  // A vector without the closing NUL gets one.
  PellInternalMessage source(std::vector<char>(payload.c_str(), payload.c_str() + payload.size()));
  PellInternalMessage message(MessageKind::SET, "old");
  message = std::move(source);
  const cJSON* view = message.viewBody();
  EXPECT_EQ(message.getUniqueId(), "7@x");
  EXPECT_NE(message.parseBody().get(), view);
  EXPECT_EQ(message.encode(), payload);
  // The message's own tree takes the text's place, and stays where it was seen before.
  EXPECT_EQ(message.getBody(), view);
  addMember(message.getBody(), "more", JSONPtr(cJSON_CreateTrue()));
  EXPECT_EQ(message.encode(),
            line + "{\"id\":\"7@x\",\"n\":1.5,\"big\":1.2345678901234567e+19,\"more\":true}");
}

TEST(PellInternalMessage, IsFramedOnceWithTheSourceItIsSentFrom) {
  PellInternalMessage message = received("[\"NOT\",\"a;\",1,2]\n" + kOddBody);
  const std::string line = "[\"NOT\", \"a;\", 101, 2, 0]\n";
  for (const std::string& body :
       {kOddBody, std::string(R"({"id":"7@x","n":1.5,"big":1.2345678901234567e+19})")}) {
    const SharedFrame framed = frameOf(message, 101);
    EXPECT_EQ(framed->payload(), line + body);
    EXPECT_EQ(std::string(framed->data(), framed->size()), frame(line + body));
    message.getBody();  // from now on rendered
  }
}

TEST(PellInternalMessage, BodyThatIsNoJsonReadsAsNullAndStillCrosses) {
  for (const std::string& body : {std::string("{\"id\":"), std::string(5000, '[')}) {
    const test::LogCapture log;
    const PellInternalMessage message = received("[\"GET\",\"a\",1,2]\n" + body);
    EXPECT_TRUE(cJSON_IsNull(message.viewBody()));
    EXPECT_EQ(message.getUniqueId(), "");
    EXPECT_EQ(message.encode(), "[\"GET\", \"a\", 1, 2, 0]\n" + body);
    EXPECT_EQ(log.lines(),
              (Lines{{LOG_INFO, "PellInternalMessage data decode error:" + body + "\n"},
                     {LOG_DEBUG, "UniqueID not found.\n"}}));
  }
}

TEST(PellInternalMessage, BodyOfMoreThanTwoMillionValuesIsNotParsed) {
  const test::LogCapture log;
  std::string body = "[1";
  while (body.size() < 3'999'998) {
    body += ",1";
  }
  const std::string line = "[\"GET\", \"a\", 1, 2, 0]\n";
  EXPECT_EQ(cJSON_GetArraySize(received(line + body + "]").viewBody()), 1'999'999);
  EXPECT_TRUE(log.lines().empty());
  PellInternalMessage message = received(line + body + ",1]");
  EXPECT_TRUE(cJSON_IsNull(message.viewBody()) && cJSON_IsNull(message.parseBody().get()));
  EXPECT_TRUE(message.encode() == line + body + ",1]");
  EXPECT_TRUE(cJSON_IsNull(message.getBody()));
  EXPECT_EQ(log.count(LOG_WARNING,
                      "PellInternalMessage body of 4000001 bytes is not looked into, it holds more "
                      "than 2000000 values\n"),
            2);
}

TEST(PellInternalMessage, HeaderLineIsCutAt255CharactersWithAWarning) {
  const test::LogCapture log;
  for (const std::size_t length : {234U, 235U}) {  // the line has 21 characters more
    const std::string path(length, 'p');
    EXPECT_EQ(PellInternalMessage(MessageKind::GET, path, 0, "1").encode(),
              "[\"GET\", \"" + path + (length == 234 ? "\", 0, 0, 0]\n" : "\", 0, 0, 0]") +
                  "{\"id\":\"1\"}");
  }
  EXPECT_EQ(log.countContaining("kind GET, path of 235 characters"), 1);
  EXPECT_EQ(log.lines().size(), 1U);
}

}  // namespace
}  // namespace valtor
