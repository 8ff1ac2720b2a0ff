#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <syslog.h>
#include <utility>
#include <vector>

#include "ReceivedMessage.h"
#include "bus/PellInternalMessage.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace valtor {
namespace {

using test::received;

// White space, number spelling and a number beyond what a double holds.
constexpr const char* kOddBody = "{ \"id\" : \"7@x\",\t\"n\":1.50,\"big\":12345678901234567890 }";

TEST(PellInternalMessage, KindNamesAreTheTableAndMatchedExactly) {
  const char* names[] = {"CMD", "CMDRSP", "CMDNOT", "RSP", "NOT",   "ACK",
                         "NAK", "GET",    "SET",    "DEL", "UPDATE"};
  int32_t number = 0;
  for (const char* name : names) {
    EXPECT_STREQ(kindName(static_cast<MessageKind>(number)), name);
    EXPECT_EQ(kindFromName(name), static_cast<MessageKind>(number));
    ++number;
  }
  EXPECT_STREQ(kindName(MessageKind::Unknown), "");
  EXPECT_STREQ(kindName(static_cast<MessageKind>(-1)), "");
  for (const char* name : {"", "get", "GET ", "GE", "CMDX"}) {
    EXPECT_EQ(kindFromName(name), MessageKind::Unknown) << name;
  }
}

struct GoodHeader {
  const char* line;
  MessageKind kind;
  const char* path;
  int32_t source;
  const char* sourceName;
  int32_t destination;
  const char* destName;
};

TEST(PellInternalMessage, HeaderFieldsFollowTheirElements) {
  const GoodHeader cases[] = {
      {R"(["GET", "system", 490, 100, 0])", MessageKind::GET, "system", 490, "", 100, ""},
      {R"(["SET","",1,2])", MessageKind::SET, "", 1, "", 2, ""},
      {R"( [ "UPDATE" , "a.b" , -3 , 2.9 , null , 7 ] trailing)", MessageKind::UPDATE, "a.b", -3,
       "", 2, ""},
      {R"(["DEL","a","12@node","0x10@x"])", MessageKind::DEL, "a", 12, "node", 16, "x"},
      {R"(["DEL","a","12@","010@a@b"])", MessageKind::DEL, "a", 12, "", 8, "a@b"},
      {R"(["CMD","a","abc@x","12"])", MessageKind::CMD, "a", 0, "", 0, ""},
      {R"(["CMD","a","@x","12y@x"])", MessageKind::CMD, "a", 0, "", 0, ""},
      {R"(["CMD","a","000000000000005@x","0000000000000005@x"])", MessageKind::CMD, "a", 5, "x", 0,
       ""},
      {R"(["CMD","a","2147483647@x","-2147483648@y"])", MessageKind::CMD, "a", 2147483647, "x",
       -2147483647 - 1, "y"},
      {R"(["CMD","a","2147483648@x","-2147483649@y"])", MessageKind::CMD, "a", 0, "", 0, ""},
      {R"(["CMD","a","99999999999999@x","999999999999999@y"])", MessageKind::CMD, "a", 0, "", 0,
       ""},
      {R"(["RSP","a",null,{"b":1}])", MessageKind::RSP, "a", 0, "", 0, ""},
      {R"(["RSP","a",true,[5]])", MessageKind::RSP, "a", 0, "", 0, ""},
      {R"(["RSP","a",1e99,-1e99])", MessageKind::RSP, "a", 2147483647, "", -2147483647 - 1, ""},
      {R"(["NOT","a",1,2,"datehere"])", MessageKind::NOT, "a", 1, "", 2, ""},
  };
  for (const GoodHeader& example : cases) {
    SCOPED_TRACE(example.line);
    const test::LogCapture log;
    const PellInternalMessage message = received(std::string(example.line) + "\n{}");
    EXPECT_TRUE(message.isDecoded());
    EXPECT_EQ(message.getKind(), example.kind);
    EXPECT_EQ(message.getPath(), example.path);
    EXPECT_EQ(message.header.sourceConnID, example.source);
    EXPECT_EQ(message.header.sourceName, example.sourceName);
    EXPECT_EQ(message.getDestConnID(), example.destination);
    EXPECT_EQ(message.header.destName, example.destName);
    EXPECT_FALSE(message.isScheduled());
    EXPECT_STREQ(message.bodyText(), "{}");
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(PellInternalMessage, HeaderThatBreaksARuleIsNotDecoded) {
  const MessageKind unknown = MessageKind::Unknown;
  const std::pair<std::string, MessageKind> cases[] = {
      {"", unknown},
      {"GET", unknown},
      {"[", unknown},
      {"[]", unknown},
      {"null", unknown},
      {R"({"0":"GET","1":"a","2":1,"3":2})", unknown},
      {R"("GET")", unknown},
      {R"([7,"a",1,2])", unknown},
      {R"(["get","a",1,2])", unknown},
      {R"([null,"a",1,2])", unknown},
      {R"([["GET"],"a",1,2])", unknown},
      {R"(["GET"])", MessageKind::GET},
      {R"(["GET","a",1])", MessageKind::GET},
      {R"(["GET",5,1,2])", MessageKind::GET},
      {R"(["SET",null,1,2,0])", MessageKind::SET},
      {R"(["SET",["a"],1,2,0])", MessageKind::SET},
      {R"(["NOT","a\"b",1,2])", MessageKind::NOT},
      {R"(["NOT","a\\b",1,2])", MessageKind::NOT},
      {R"(["NOT","a\nb",1,2])", MessageKind::NOT},
      {R"(["NOT","a\u001fb",1,2])", MessageKind::NOT},
      {std::string(5000, '['), unknown},
  };
  for (const auto& [line, kind] : cases) {
    SCOPED_TRACE(line);
    const test::LogCapture log;
    const PellInternalMessage message = received(line + "\n{\"id\":\"1\"}");
    EXPECT_FALSE(message.isDecoded());
    EXPECT_EQ(message.getKind(), kind);
    EXPECT_EQ(message.getPath(), "");
    EXPECT_EQ(message.bodyText(), nullptr);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(LOG_INFO, "PellInternalMessage header decode error:" + line + "\n"), 1);
  }
}

TEST(PellInternalMessage, PayloadWithoutLineFeedHasNoHeader) {
  using namespace std::string_literals;
  const test::LogCapture log;
  EXPECT_FALSE(received("[\"GET\", \"a\", 1, 2, 0]").isDecoded());
  EXPECT_EQ(log.count(LOG_INFO, "PellInternalMessage Header not found:[\"GET\", \"a\", 1, 2, 0]\n"),
            1);
  EXPECT_FALSE(received("[\"GET\",\0 \"a\", 1, 2]\n{}"s).isDecoded());
  EXPECT_EQ(log.count(LOG_INFO, "PellInternalMessage Header not found:[\"GET\",\n"), 1);
  EXPECT_FALSE(received(std::string(1'000'000, 'x')).isDecoded());
  EXPECT_EQ(log.lines().back().text.size(), 65536U + 38U);  // quoted up to a limit
}

TEST(PellInternalMessage, ByteVectorMustEndInNulAndDecode) {
  const test::ConsoleCapture errors(stderr);
  const std::string payload = "[\"GET\", \"a\", 1, 2, 0]\nbody";
  PellInternalMessage message(std::vector<char>(payload.begin(), payload.end()));
  EXPECT_EQ(errors.text(),
            "** PellInternalMessage Error: Input vector must be null terminated **\n");
  const PellInternalMessage moved = std::move(message);
  EXPECT_EQ(moved.encode(), payload);
  EXPECT_EQ(PellInternalMessage(std::vector<char>(payload.c_str(), payload.c_str() + 27)).encode(),
            payload);
  for (const std::vector<char>& bad : {std::vector<char>{}, std::vector<char>{'x', '\n', '\0'}}) {
    try {
      PellInternalMessage refused{std::vector<char>(bad)};
      ADD_FAILURE() << "accepted";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "Error Parsing PellinternalMessage");
    }
  }
}

TEST(PellInternalMessage, ReceivedBodyCrossesByteForByteForWhoeverOnlyLooks) {
  PellInternalMessage message = received("[\"NOT\",\"a\",1,2]\n" + std::string(kOddBody));
  const std::string expected = "[\"NOT\", \"a\", 1, 2, 0]\n" + std::string(kOddBody);
  EXPECT_EQ(message.encode(), expected);
  const cJSON* view = message.viewBody();
  EXPECT_STREQ(stringMember(view, "id"), "7@x");
  EXPECT_EQ(message.viewBody(), view);
  EXPECT_EQ(message.getUniqueId(), "7@x");
  EXPECT_EQ(message.getSequence(), std::pair(0, 0));
  EXPECT_NE(message.parseBody().get(), view);
  EXPECT_EQ(message.encode(), expected);
  // The message's own tree takes the text's place, and stays where it was seen before.
  EXPECT_EQ(message.getBody(), view);
  addMember(message.getBody(), "more", JSONPtr(cJSON_CreateTrue()));
  EXPECT_EQ(message.encode(),
            "[\"NOT\", \"a\", 1, 2, 0]\n"
            "{\"id\":\"7@x\",\"n\":1.5,\"big\":1.2345678901234567e+19,"
            "\"more\":true}");
  EXPECT_EQ(cJSON_GetObjectItem(message.parseBody().get(), "more"), nullptr);
}

TEST(PellInternalMessage, BodyThatIsNoJsonReadsAsNullAndStillCrosses) {
  for (const std::string& body :
       {std::string(), std::string("{\"id\":"), std::string(5000, '['), std::string("\x01\xff")}) {
    const test::LogCapture log;
    PellInternalMessage message = received("[\"GET\",\"a\",1,2]\n" + body);
    EXPECT_TRUE(message.isDecoded());
    EXPECT_TRUE(cJSON_IsNull(message.viewBody()));
    EXPECT_TRUE(cJSON_IsNull(message.viewBody()));
    EXPECT_EQ(message.getUniqueId(), "");
    EXPECT_EQ(message.encode(), "[\"GET\", \"a\", 1, 2, 0]\n" + body);
    EXPECT_EQ(log.count(LOG_INFO, "PellInternalMessage data decode error:" + body + "\n"), 1);
    EXPECT_EQ(log.count(LOG_DEBUG, "UniqueID not found.\n"), 1);
    EXPECT_TRUE(cJSON_IsNull(message.parseBody().get()));
    EXPECT_TRUE(cJSON_IsNull(message.getBody()));
    EXPECT_EQ(log.countContaining("data decode error"), 2);
  }
  PellInternalMessage undecoded = received("x");
  EXPECT_TRUE(cJSON_IsNull(undecoded.getBody()));
  EXPECT_TRUE(cJSON_IsNull(undecoded.parseBody().get()));
}

TEST(PellInternalMessage, EncodesToTheseBytes) {
  PellInternalMessage built(MessageKind::CMDRSP, "system.connection", 490, "17@1203.0011a2b3c4d5");
  EXPECT_EQ(built.encode(),
            "[\"CMDRSP\", \"system.connection\", 0, 490, 0]\n{\"id\":\"17@1203.0011a2b3c4d5\"}");
  EXPECT_EQ(built.encodeFrom(101),
            "[\"CMDRSP\", \"system.connection\", 101, 490, 0]\n"
            "{\"id\":\"17@1203.0011a2b3c4d5\"}");
  EXPECT_EQ(built.header.sourceConnID, 0);
  built.header.scheduledTime.tv_nsec = 1;
  built.header.kind = MessageKind::Unknown;
  EXPECT_EQ(built.headerLine(), "[\"\", \"system.connection\", 0, 490, \"datehere\"]\n");
  EXPECT_EQ(received("[\"ACK\",\"\",5,6,0]\n").encode(), "[\"ACK\", \"\", 5, 6, 0]\n");

  JSONPtr tree(cJSON_Parse("{\"param\":[1,\"x\"]}"));
  const PellInternalMessage taken(MessageKind::SET, "db", std::move(tree));
  EXPECT_EQ(taken.encode(), "[\"SET\", \"db\", 0, 0, 0]\n{\"param\":[1,\"x\"],\"id\":\"" +
                                taken.getUniqueId() + "\"}");
  EXPECT_TRUE(cJSON_IsNull(taken.parseBody().get()));
}

TEST(PellInternalMessage, HeaderLineIsCutAt255CharactersWithAWarning) {
  const std::size_t around = std::string("[\"GET\", \"\", 0, 0, 0]\n").size();
  const test::LogCapture log;
  const PellInternalMessage fits(MessageKind::GET, std::string(255 - around, 'p'), 0, "1");
  EXPECT_EQ(fits.encode(),
            "[\"GET\", \"" + std::string(255 - around, 'p') + "\", 0, 0, 0]\n{\"id\":\"1\"}");
  EXPECT_TRUE(log.lines().empty());

  const PellInternalMessage cut(MessageKind::GET, std::string(256 - around, 'p'), 0, "1");
  EXPECT_EQ(cut.headerLine().size(), 255U);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(cut.encode(),
            "[\"GET\", \"" + std::string(256 - around, 'p') + "\", 0, 0, 0]{\"id\":\"1\"}");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_WARNING);
  EXPECT_NE(log.lines()[0].text.find("kind GET, path of 235 characters"), std::string::npos);
}

TEST(PellInternalMessage, MovingLeavesAnEmptyMessageBehind) {
  PellInternalMessage source = received("[\"GET\",\"a.b\",1,2]\n" + std::string(kOddBody));
  EXPECT_EQ(source.getUniqueId(), "7@x");
  PellInternalMessage target(MessageKind::SET, "old");
  target = std::move(source);
  EXPECT_EQ(target.encode(), "[\"GET\", \"a.b\", 1, 2, 0]\n" + std::string(kOddBody));
  EXPECT_EQ(target.getUniqueId(), "7@x");
  // What is left behind is defined: nothing.
  EXPECT_EQ(source.encode(), "[\"\", \"\", 0, 0, 0]\n");  // NOLINT(bugprone-use-after-move)
  EXPECT_FALSE(source.isDecoded());
  EXPECT_EQ(source.knownUniqueId(), "");
}

TEST(PellInternalMessage, IdentifierIsLookedForUntilItIsFound) {
  const test::LogCapture log;
  PellInternalMessage message = received("[\"GET\",\"a\",1,2]\n{\"id\":5,\"x\":0}");
  EXPECT_EQ(message.getUniqueId(), "");
  EXPECT_EQ(message.getUniqueId(), "");
  EXPECT_EQ(log.count(LOG_DEBUG, "UniqueID not found.\n"), 2);
  // Names differ in case only and the first of several counts: the library's lookup.
  const PellInternalMessage twice =
      received("[\"GET\",\"a\",1,2]\n{\"ID\":\"one\",\"id\":\"two\"}");
  EXPECT_EQ(twice.knownUniqueId(), "");
  EXPECT_EQ(twice.getUniqueId(), "one");
  EXPECT_EQ(twice.knownUniqueId(), "one");
}

TEST(PellInternalMessage, SequenceIsAnArrayOfExactlyTwo) {
  std::string million = "0";
  for (int i = 0; i < 1'000'000; ++i) {
    million += ",0";
  }
  const std::pair<std::string, std::pair<int, int>> cases[] = {
      {"{\"seq\":[2,7]}", {2, 7}},
      {"{\"seq\":[2]}", {0, 0}},
      {"{\"seq\":[]}", {0, 0}},
      {"{\"seq\":[1,2,3]}", {0, 0}},
      {"{\"seq\":{\"a\":1,\"b\":2}}", {0, 0}},
      {"{\"seq\":\"[2,7]\"}", {0, 0}},
      {"{\"seq\":[1e30,-1e30]}", {2147483647, -2147483647 - 1}},
      {"{\"seq\":[\"x\",2]}", {0, 2}},
      {"[2,7]", {0, 0}},
      {"{\"seq\":[" + million + "]}", {0, 0}}};
  for (const auto& [body, sequence] : cases) {
    EXPECT_EQ(received("[\"SET\",\"a\",1,2]\n" + body).getSequence(), sequence)
        << body.substr(0, 40);
  }
}

TEST(PellInternalMessage, PathIsCutAtEveryDot) {
  using Parts = std::vector<std::string>;
  EXPECT_EQ(elementsOfPath("a.b.c"), (Parts{"a", "b", "c"}));
  EXPECT_EQ(elementsOfPath("device"), (Parts{"device"}));
  EXPECT_EQ(elementsOfPath(".a..b."), (Parts{"", "a", "", "b", ""}));
  EXPECT_EQ(elementsOfPath(""), (Parts{""}));
  PellInternalMessage message(MessageKind::GET, "x.y");
  message.splitPath();
  message.splitPath();
  EXPECT_EQ(message.header.pathElements, (Parts{"x", "y", "x", "y"}));
}

TEST(PellInternalMessage, OnlyTheCommandKindsAreCommands) {
  for (int32_t kind = 0; kind <= 11; ++kind) {
    EXPECT_EQ(PellInternalMessage(static_cast<MessageKind>(kind), "a").isCommand(), kind <= 2)
        << kind;
  }
}

}  // namespace
}  // namespace valtor
