#include <gtest/gtest.h>

#include "connections/DeviceConnectionDetails.h"

namespace valtor {
namespace {

std::string rendered(const DeviceConnectionDetails& details) {
  return printJSON(details.toJSON().get(), false);
}

TEST(DeviceConnectionDetails, TakesWhatIsThereAndSaysWhetherItWasEnough) {
  struct Case {
    const char* description;
    int result;
    const char* rendering;
  };
  for (
      const Case& c :
      {Case{R"({"connectionPoint":"c","uniqueID":"u","name":"n","type":"t"})", 0,
            R"({"type":"t","family":"F","name":"n","uniqueID":"u","connectionPoint":"c"})"},
       Case{
           R"({"type":"t","family":"","name":"n","uniqueID":"u","connectionPoint":"c","details":{"a": [1, null]}})",
           0,
           R"({"type":"t","family":"","name":"n","uniqueID":"u","connectionPoint":"c","details":{"a":[1,null]}})"},
       Case{
           R"({"type":"t","family":3,"name":"n","uniqueID":"u","connectionPoint":"c","details":17})",
           0,
           R"({"type":"t","family":"F","name":"n","uniqueID":"u","connectionPoint":"c","details":17})"},
       Case{R"({"type":"t","name":5,"uniqueID":"u","connectionPoint":"c"})", -1,
            R"({"type":"t","family":"F","name":"N","uniqueID":"u","connectionPoint":"c"})"},
       Case{R"({"type":"t","family":"f","name":"n","uniqueID":"u","connectionPoint":[]})", -1,
            R"({"type":"t","family":"f","name":"n","uniqueID":"u","connectionPoint":"C"})"},
       Case{R"(["type"])", -1,
            R"({"type":"T","family":"F","name":"N","uniqueID":"U","connectionPoint":"C"})"}}) {
    DeviceConnectionDetails details("C", "U", "F", "T", "N");
    const OwnedJSON item = parseJSON(c.description);
    EXPECT_EQ(details.loadFromJSON(item.get()), c.result) << c.description;
    EXPECT_EQ(details.isValid(), c.result == 0) << c.description;
    EXPECT_EQ(rendered(details), c.rendering) << c.description;

    DeviceConnectionDetails again;
    EXPECT_EQ(again.loadFromJSON(details.toJSON().get()), 0) << c.description;
    EXPECT_EQ(rendered(again), c.rendering);
  }
}

}  // namespace
}  // namespace valtor
