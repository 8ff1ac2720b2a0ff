#include <gtest/gtest.h>

#include "app/util/OwnedJSON.h"

namespace valtor {
namespace {

TEST(OwnedJSON, NeverHoldsNone) {
  EXPECT_EQ(printJSON(OwnedJSON(JSONPtr()).get(), false), "{}");
  EXPECT_EQ(printJSON(parseJSON("no json").get(), false), "{}");
}

TEST(OwnedJSON, MembersAreFoundWhateverTheirCaseAndOnlyWithTheirType) {
  const OwnedJSON tree = parseJSON(R"({"Name":"first","name":"second","list":[1],"number":5})");
  EXPECT_STREQ(stringMember(tree.get(), "NAME"), "first");
  EXPECT_EQ(stringMember(tree.get(), "number"), nullptr);
  EXPECT_EQ(stringMember(nullptr, "name"), nullptr);
  EXPECT_NE(arrayMember(tree.get(), "list"), nullptr);
  EXPECT_EQ(arrayMember(tree.get(), "number"), nullptr);
}

}  // namespace
}  // namespace valtor
