#include <gtest/gtest.h>
#include <stdexcept>

#include "router/DeviceParamList.h"

namespace valtor::test {
namespace {

DeviceParam makeParam(const std::string& oid, const std::string& text) {
  ParamStringValue value;
  value.text = text;
  value.isNull = text.empty();
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
  const struct {
    const char* text;
    const char* device;
    const char* param;
    const char* group;
  } cases[] = {{"r1.level.3.name", "r1", "level.3.name", "3"},
               {"r1.gain", "r1", "gain", "gain"},
               {"r1.a.b", "r1", "a.b", "a"},
               {".x", "", "x", "x"},
               {"r1.", "r1", "", ""},
               {"r1..x", "r1", ".x", ""}};
  for (const auto& [text, device, param, group] : cases) {
    const ParamOID oid(text);
    EXPECT_EQ(oid.device.name, device) << text;
    EXPECT_EQ(oid.param, param) << text;
    EXPECT_EQ(oid.group, group) << text;
    EXPECT_EQ(oid.toString(), text);
    EXPECT_FALSE(oid.absent);
  }
}

TEST(ParamOIDTest, TextWithoutAPointIsRefused) {
  try {
    const ParamOID oid("gain");
    FAIL() << oid.toString();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "ParamOID invalid constructor string: gain");
  }
  ParamOID oid("r1.gain");
  EXPECT_EQ(oid.loadFromJSON(parseJSON(R"("level")").get()), -1);
  EXPECT_EQ(oid.loadFromJSON(parseJSON("1.5").get()), -1);
  EXPECT_EQ(oid.toString(), "r1.gain");
}

TEST(ParamStringValueTest, OnlyAStringWithTextIsAValue) {
  ParamStringValue value;
  EXPECT_EQ(value.loadFromJSON(parseJSON(R"("a")").get()), 0);
  EXPECT_EQ(value.loadFromJSON(parseJSON("7").get()), 0);
  EXPECT_TRUE(value.isNull);
  EXPECT_EQ(value.toString(), "a");
  EXPECT_EQ(value.loadFromJSON(parseJSON(R"("")").get()), 0);
  EXPECT_TRUE(value.isNull);
  EXPECT_EQ(value.toString(), "");
}

TEST(DeviceParamTest, DescribesItself) {
  DeviceParam param = makeParam("r1.gain", "3");
  EXPECT_EQ(param.toString(), "oid:r1.gain, value:3, complete:0");
  param.markComplete();
  EXPECT_EQ(param.toString(), "oid:r1.gain, value:3, complete:1");
}

TEST(DeviceParamTest, TielineStandsForEveryDeviceOnTheOtherSideOnly) {
  const DeviceParam mine = makeParam("r1.gain", "3");
  const DeviceParam tieline = makeParam("tieline.gain", "3");
  EXPECT_TRUE(mine.matches(tieline));
  EXPECT_FALSE(tieline.matches(mine));
  EXPECT_FALSE(mine.matches(makeParam("tieline.gain", "4")));
  EXPECT_FALSE(mine.matches(makeParam("tieline.level", "3")));
  EXPECT_FALSE(mine.matches(makeParam("r2.gain", "3")));
}

TEST(DeviceParamListTest, LoadsEachDifferentMemberOnce) {
  const List list(R"({"a":"x","b":"x","a":"x","a":"y","c":7,"c":"","d":["x"]})");
  EXPECT_EQ(list.text("r1"), R"({"a":"x","b":"x","a":"y","c":0,"d":0})");
  EXPECT_EQ(list.text(""), list.text("r1"));
  EXPECT_EQ(list.text("r2"), "{}");
  EXPECT_EQ(list.countIncomplete(), 5U);
  const std::vector<DeviceParam> params = list.params("r1");
  ASSERT_EQ(params.size(), 5U);
  EXPECT_EQ(params[1].toString(), "oid:r1.b, value:x, complete:0");
  EXPECT_EQ(params[1].statusCode, 200);
  EXPECT_EQ(List(R"({"a":"x","a":"x"})", true).size(), 2U);
}

TEST(DeviceParamListTest, RequestWithoutParametersGivesAnEmptyList) {
  for (const char* param : {"[1,2]", "7", "null", R"("x")", "{}"}) {
    EXPECT_EQ(List(param).size(), 0U) << param;
  }
  EXPECT_EQ(DeviceParamList("r1", nullptr).size(), 0U);
  EXPECT_EQ(DeviceParamList("r1", parseJSON("{}").get()).size(), 0U);
}

TEST(DeviceParamListTest, NoticesTheValueInvalid) {
  EXPECT_TRUE(List(R"({"a":"x","b":"invalid","c":"y"})").hasInvalidValue());
  EXPECT_FALSE(List(R"({"a":"Invalid","invalid":"invalid "})").hasInvalidValue());
}

TEST(DeviceParamListTest, AddingAnEqualParameterMakesItIncompleteAgain) {
  List list(R"({"a":"x"})");
  ASSERT_TRUE(list.markComplete("r1", makeParam("r1.a", "x")));
  EXPECT_EQ(list.countIncomplete(), 0U);
  list.addParam("r1", makeParam("tieline.a", "x"));
  EXPECT_EQ(list.size(), 1U);
  EXPECT_EQ(list.countIncomplete(), 1U);
  list.addParam("r2", makeParam("r1.a", "x"));
  EXPECT_EQ(list.size(), 2U) << "another device's group";
  List keeping(R"({"a":"x"})", true);
  keeping.addParam("r1", makeParam("r1.a", "x"));
  EXPECT_EQ(keeping.size(), 2U);
}

TEST(DeviceParamListTest, MarksWhatMatchesOnce) {
  List list(R"({"a":"x","b":"y"})");
  DeviceParam pending = makeParam("r1.c", "z");
  pending.pending = true;
  list.addParam("r1", pending);
  EXPECT_EQ(list.countPending(), 1U);
  EXPECT_FALSE(list.markComplete("r1", makeParam("r2.a", "x")));
  EXPECT_FALSE(list.markComplete("r2", makeParam("r1.a", "x")));
  EXPECT_TRUE(list.markComplete("r1", makeParam("tieline.c", "z")));
  EXPECT_FALSE(list.markComplete("r1", pending)) << "complete already";
  EXPECT_EQ(list.countPending(), 0U);
  EXPECT_EQ(list.countIncomplete(), 2U);
}

TEST(DeviceParamListTest, AnswersHandOnTheirStatusCode) {
  List list(R"({"a":"x","b":"y","c":"z"})");
  ASSERT_TRUE(list.markComplete("r1", makeParam("r1.c", "z")));
  List answers(R"({"a":"x","b":"other","c":"z"})");
  answers.addParam("r1", makeParam("tieline.b", "y"));
  answers.addParam("r2", makeParam("r1.a", "x"));
  answers.setStatusCode(404);
  EXPECT_EQ(list.markCompleteFrom(answers), 0U);
  const std::vector<DeviceParam> params = list.params("r1");
  EXPECT_EQ(params[0].statusCode, 404);
  EXPECT_EQ(params[1].statusCode, 404);
  EXPECT_EQ(params[2].statusCode, 200) << "was complete before";
  List other(R"({"a":"x","b":"y"})");
  EXPECT_EQ(other.markCompleteFrom(List(R"({"a":"x"})")), 1U);
}

TEST(DeviceParamListTest, MergeAppendsGroupsAndParameters) {
  List list(R"({"a":"x"})");
  List other(R"({"a":"x","b":"y"})");
  other.addParam("r2", makeParam("r2.c", "z"));
  list.merge(other);
  EXPECT_EQ(list.text(""), R"({"a":"x","a":"x","b":"y","c":"z"})");
  EXPECT_EQ(list.text("r2"), R"({"c":"z"})");
  list.merge(list);
  EXPECT_EQ(list.size(), 8U);
}

// Compared pair by pair, lists of this length would take hours.
TEST(DeviceParamListTest, LongListsLoadAndAreMarkedComplete) {
  std::string param = R"({"p":"x")";
  for (int count = 0; count < 400000; ++count) {
    param += ",\"p" + std::to_string(count) + "\":\"x\"";
  }
  param += "}";
  List list(param);
  EXPECT_EQ(list.size(), 400001U);
  EXPECT_EQ(list.markCompleteFrom(list), 0U);
}

}  // namespace
}  // namespace valtor::test
