#include "app/util/JSONValues.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

TEST(OwnedJSON, NeverHoldsNone) {
  EXPECT_EQ(printJSON(OwnedJSON(JSONPtr()).get(), false), "{}");
  EXPECT_EQ(printJSON(parseJSON("no json").get(), false), "{}");
}

TEST(JSONValues, AreCountedAsATreeWouldHoldThem) {
  const struct {
    std::string text;
    std::size_t values;
  } cases[] = {{"[1,2,3]", 4},
               {"\xEF\xBB\xBF[[],{},[[]]] [1,2,3,4,5,6,7,8]", 5},
               {R"({"a":1,"b":{"c":[true]}} trailing, [1,2])", 8},
               {R"(["[1,2,{",":,\",,","\\","",-1.5e+3,null])", 7},
               {"{ \"a\" :\t[ 1 ,\n2 ] }" + std::string(20, ' '), 5},
               {"[[[[[", 5},               // no JSON, but a parser gets as far
               {R"(["a","b,[1,2,3)", 3}};  // a string without an end
  for (const auto& [text, values] : cases) {
    for (std::size_t limit = 0; limit < text.size() / 2; ++limit) {
      EXPECT_EQ(holdsMoreValues(text, limit), values > limit) << text << " " << limit;
    }
  }
  std::string shortest = "[1";
  for (std::size_t values = 2; values < 100; ++values) {
    EXPECT_TRUE(holdsMoreValues(shortest + "]", values - 1)) << values;
    EXPECT_FALSE(holdsMoreValues(shortest + "]", values));
    shortest += ",1";
  }
}

}  // namespace
}  // namespace valtor
