#include <gtest/gtest.h>
#include <string>

#include "peers/DatabaseIdHandler.h"

namespace valtor {
namespace {

TEST(DatabaseIdHandler, TakesTheFirstStringAfterTheTopLevelId) {
  struct Case {
    const char* text;
    const char* id;
  };
  const Case cases[] = {
      {R"({"id":"7@1.aa"})", "7@1.aa"},
      {R"({"requestCommand":"GET","param":{"id":"no.no"},"id":"7@1.aa"})", "7@1.aa"},
      {R"({"param":[{"id":"no.no"}]})", ""},
      {R"({"param":{"id":"no.no"}})", ""},
      {R"([{"id":"no.no"}])", ""},
      {R"({"ID":"no.no"})", ""},
      {R"({"id":7,"name":"no.no"})", ""},
      {R"({"id":["7@1.aa"]})", "7@1.aa"},
      {R"({"id":"\u00e9\ud83d\ude00."})", "\xc3\xa9\xf0\x9f\x98\x80."},
      {R"({"id":"7@1.aa",,,)", "7@1.aa"},
      {R"({"param": }, "id":"7@1.aa"})", ""},
      {"", ""},
      {"no JSON", ""},
  };
  for (const Case& one : cases) {
    EXPECT_EQ(DatabaseIdHandler::findId(one.text), one.id) << one.text;
  }
}

TEST(DatabaseIdHandler, ReadsNoFurtherThanTheId) {
  const std::string text = R"({"id":"7@1.aa","param":")" + std::string(1'000'000, 'x') + "\"}";
  rapidjson::Reader reader;
  rapidjson::StringStream stream(text.c_str());
  DatabaseIdHandler handler;
  const auto result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
  EXPECT_EQ(result.Code(), rapidjson::kParseErrorTermination);
  EXPECT_EQ(handler.capturedId(), "7@1.aa");
  EXPECT_EQ(stream.Tell(), std::string(R"({"id":"7@1.aa")").size());
}

TEST(DatabaseIdHandler, GivesUpOnNestingThatNobodyElseFollows) {
  const auto nested = [](int depth) {
    const auto count = static_cast<std::size_t>(depth);
    return R"({"param":)" + std::string(count, '[') + std::string(count, ']') +
           R"(,"id":"7@1.aa"})";
  };
  EXPECT_EQ(DatabaseIdHandler::findId(nested(999).c_str()), "7@1.aa");
  EXPECT_EQ(DatabaseIdHandler::findId(nested(1'000'000).c_str()), "");
}

}  // namespace
}  // namespace valtor
