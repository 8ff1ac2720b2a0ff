#include <gtest/gtest.h>

#include "app/util/OwnedJSON.h"

namespace valtor {
namespace {

TEST(OwnedJSON, NeverHoldsNone) {
  EXPECT_EQ(printJSON(OwnedJSON(JSONPtr()).get(), false), "{}");
  EXPECT_EQ(printJSON(parseJSON("no json").get(), false), "{}");
}

}  // namespace
}  // namespace valtor
