#include <stdexcept>

#include "router/DeviceParamList.h"
#include "support/Vocabulary.h"

namespace valtor::test {
namespace {

DeviceParam makeParam(const std::string& oid, const std::string& text) {
  ParamStringValue value;
  value.loadFromJSON(parseJSON("\"" + text + "\"").get());
  return DeviceParam(ParamOID(oid), value);
}

// Of the device "r1", whose request's "param" member this is.
class List : public DeviceParamList {
 public:
  explicit List(const std::string& param, bool keepDuplicates = false)
      : DeviceParamList("r1", parseJSON("{\"param\":" + param + "}").get(), keepDuplicates) {}

  std::string text(const std::string& deviceName) const {
    return printJSON(toJSON(deviceName).get(), false);
  }
};

TEST(ParamOIDTest, SplitsDevicePathAndGroup) {
  for (const auto& [text, parts] :
       {std::pair("r1.level.3.name", "r1 level.3.name 3"), std::pair("r1.gain", "r1 gain gain"),
        std::pair("r1..x", "r1 .x ")}) {
    const ParamOID oid(text);
    EXPECT_EQ(oid.device.name + " " + oid.param + " " + oid.group, parts);
  }
  EXPECT_THROW(ParamOID("gain"), std::runtime_error);
}

TEST(DeviceParamListTest, LoadsEachDifferentMemberOnce) {
  const List list(R"({"a":"x","b":"x","a":"x","a":"y","c":7,"c":"","d":["x"]})");
  EXPECT_EQ(list.text("r1"), R"({"a":"x","b":"x","a":"y","c":0,"d":0})");
  EXPECT_EQ(List(R"({"a":"x","a":"x"})", true).size(), 2U);
  EXPECT_TRUE(List(R"({"a":"invalid","b":"y"})").hasInvalidValue());
  EXPECT_FALSE(list.hasInvalidValue());
}

TEST(DeviceParamListTest, MarksWhatMatchesOnceUntilItIsAddedAgain) {
  List list(R"({"a":"x","b":"y"})");
  DeviceParam pending = makeParam("r1.c", "z");
  pending.pending = true;
  list.addParam("r1", pending);
  EXPECT_FALSE(list.markComplete("r1", makeParam("r2.a", "x")));
  EXPECT_FALSE(list.markComplete("r2", makeParam("r1.a", "x")));
  EXPECT_FALSE(list.markComplete("r1", makeParam("tieline.a", "y")));
  EXPECT_TRUE(list.markComplete("r1", makeParam("tieline.c", "z")));
  EXPECT_FALSE(list.markComplete("r1", pending)) << "complete already";
  EXPECT_EQ(list.countPending(), 0U);
  EXPECT_EQ(list.countIncomplete(), 2U);
  list.addParam("r1", pending);
  EXPECT_EQ(list.size(), 3U);
  EXPECT_EQ(list.countIncomplete(), 3U);
}

TEST(DeviceParamListTest, AnswersHandOnTheirStatusCode) {
  List list(R"({"a":"x","b":"y","c":"z","d":"z"})");
  ASSERT_TRUE(list.markComplete("r1", makeParam("r1.c", "z")));
  List answers(R"({"b":"other","c":"z"})");
  answers.addParam("r1", makeParam("tieline.a", "x"));
  answers.addParam("r2", makeParam("r1.d", "z"));
  answers.setStatusCode(404);
  EXPECT_EQ(list.markCompleteFrom(answers), 2U);
  const std::vector<DeviceParam> params = list.params("r1");
  EXPECT_EQ(params[0].statusCode, 404);
  EXPECT_EQ(params[2].statusCode, 200) << "was complete before";
}

TEST(DeviceParamListTest, MergeAppendsEvenItself) {
  List list(R"({"a":"x"})");
  list.addParam("r2", makeParam("r2.c", "z"));
  list.merge(List(R"({"a":"x","b":"y"})"));
  list.merge(list);
  EXPECT_EQ(list.text(""), R"({"a":"x","a":"x","b":"y","a":"x","a":"x","b":"y","c":"z","c":"z"})");
}

// Compared pair by pair, lists of this length would take hours.
TEST(DeviceParamListTest, LongListsLoadAndAreMarkedComplete) {
  std::string param = R"({"p":"x")";
  for (int count = 0; count < 400000; ++count) {
    param += ",\"p" + std::to_string(count) + "\":\"x\"";
  }
  List list(param + "}");
  EXPECT_EQ(list.markCompleteFrom(list), 0U);
}

}  // namespace
}  // namespace valtor::test
