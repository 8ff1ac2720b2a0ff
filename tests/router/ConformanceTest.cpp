// What every JSON-backed class of this layer must satisfy.

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>

#include "router/DeviceParam.h"
#include "router/LevelMask.h"
#include "router/RouteOperation.h"
#include "router/SupportedInterface.h"
#include "support/LogCapture.h"

namespace valtor::test {
namespace {

using Made = std::unique_ptr<AbstractJSONBackedData>;

struct Class {
  const char* name;
  std::function<Made()> make;
  // Items that load and render as the same text.
  std::vector<std::string> stable;
  // How the class renders before anything was loaded.
  std::string empty;
};

void PrintTo(const Class& described, std::ostream* out) { *out << described.name; }

template <class T>
Class describe(const char* name, std::vector<std::string> stable, const char* empty) {
  return {name, [] { return std::make_unique<T>(); }, std::move(stable), empty};
}

// A parameter loads from a member and renders as the object around it.
class WrappedParam : public DeviceParam {
 public:
  int loadFromJSON(const cJSON* item) override {
    return DeviceParam::loadFromJSON(cJSON_IsObject(item) ? item->child : item);
  }
};

const Class kClasses[] = {
    describe<LevelMask>("LevelMask", {"[0,5,33]", "[31,32]", "[0,65535]"}, "[]"),
    describe<RouteOperation>(
        "RouteOperation",
        {R"({"level":[0,1],"destRange":[0,4095]})", R"({"level":[3],"destination":[7,-1,7]})",
         R"({"level":[0,1],"machineControl":true,"status":[[10,[1,2]]],"protect":[[10,[0]]],"userID":-5})",
         R"({"level":[2],"destRange":[2147483647,2147483647],"userID":0})"},
        "{}"),
    describe<RouteOperationStatus>("RouteOperationStatus",
                                   {"[[1,[2]]]", "[[9,[1,2,3]],[1,[-1]],[9,[4]]]"}, "[]"),
    describe<ProtectStatusItem>("ProtectStatusItem", {"0", "[1,12]", "[2,-1]", "[-1,3]"}, "0"),
    describe<ProtectStatusArray>("ProtectStatusArray",
                                 {"[[10,[[2,4],0]]]", "[[1,[0]],[2,[[1,1]]],[30,[[2,2]]]]"}, "[]"),
    describe<DeviceID>("DeviceID", {R"("r1")", R"("")", R"("with \"quotes\" and \n")"}, R"("")"),
    describe<ParamOID>("ParamOID", {R"("r1.level.3.name")", R"(".x")", R"("r1.")", R"("..")"}, "0"),
    describe<ParamStringValue>("ParamStringValue", {R"("text")", "0"}, "0"),
    describe<WrappedParam>("DeviceParam", {R"({"gain":"3"})", R"({"a.b":0})", R"({"":"x"})"},
                           R"({"":0})"),
    describe<SupportedInterface>(
        "SupportedInterface",
        {R"({"name":"n","version":1})", R"({"name":"","version":2.5,"details":{"type":[1,null]}})",
         R"({"name":"n","version":-1,"details":null})"},
        R"({"name":"","version":0})"),
};

class ConformanceTest : public testing::TestWithParam<Class> {
 protected:
  static std::string rendered(const Made& object) {
    return printJSON(object->toJSON().get(), false);
  }
};

TEST_P(ConformanceTest, LoadedIsRenderedAndLoadsAgain) {
  for (const std::string& text : GetParam().stable) {
    const Made object = GetParam().make();
    EXPECT_EQ(object->loadFromJSON(parseJSON(text).get()), 0) << text;
    EXPECT_EQ(rendered(object), text);
    const Made second = GetParam().make();
    EXPECT_EQ(second->loadFromJSON(object->toJSON().get()), 0) << text;
    EXPECT_EQ(rendered(second), text);
  }
}

TEST_P(ConformanceTest, MissingItemFailsAndChangesNothing) {
  const Made object = GetParam().make();
  EXPECT_EQ(object->loadFromJSON(nullptr), -1);
  EXPECT_EQ(rendered(object), GetParam().empty);
}

// Every value in the place of the item and of everything inside a good one. Whatever was taken over
// must render, and what is rendered must load as what it was rendered from.
TEST_P(ConformanceTest, WrongTypesAnywhereDoNoHarm) {
  const LogCapture log;
  const std::vector<std::string> values = {
      "null",
      "true",
      "false",
      "0",
      "-1",
      "2",
      "1e300",
      "-1e300",
      "0.5",
      R"("")",
      R"("x")",
      "[]",
      "{}",
      "[[]]",
      "[{}]",
      "[null]",
      R"([7,"x",{}])",
      R"([[7]])",
      "[[7,7]]",
      "[[7,[[]]]]",
      "[[7,{}]]",
      R"({"x":[1]})",
      R"({"level":{"a":1}})",
      R"({"level":7,"status":{"a":[1,[2]]},"protect":"x","destination":{"a":1}})",
      R"({"level":[[1],"x",true],"destRange":{"a":1,"b":2},"status":[[1,2],[],7],"protect":[[1]],"userID":"u"})",
      R"({"name":7,"version":1})",
      R"({"name":"n","version":"x","details":7})",
      std::string(900, '[') + std::string(900, ']')};
  for (const std::string& value : values) {
    const OwnedJSON item = parseJSON(value);
    const Made object = GetParam().make();
    object->loadFromJSON(item.get());
    const std::string text = rendered(object);
    ASSERT_FALSE(text.empty()) << value;
    const Made second = GetParam().make();
    second->loadFromJSON(parseJSON(text).get());
    EXPECT_EQ(rendered(second), text) << value;
  }
}

INSTANTIATE_TEST_SUITE_P(EachClass, ConformanceTest, testing::ValuesIn(kClasses),
                         [](const testing::TestParamInfo<Class>& made) { return made.param.name; });

TEST(SupportedInterfaceTest, NeedsANameThatIsAStringAndAVersion) {
  SupportedInterface record("old", 4, JSONPtr(cJSON_CreateTrue()));
  EXPECT_EQ(record.loadFromJSON(parseJSON(R"({"name":7,"version":1})").get()), -1);
  EXPECT_EQ(record.loadFromJSON(parseJSON(R"({"version":1})").get()), -1);
  EXPECT_EQ(record.loadFromJSON(parseJSON(R"({"name":"new"})").get()), -1);
  EXPECT_EQ(record.version(), 4);
  EXPECT_EQ(record.loadFromJSON(parseJSON(R"({"NAME":"n","Version":2})").get()), 0)
      << "names are the same in upper and lower case";
  EXPECT_EQ(printJSON(record.toJSON().get(), false), R"({"name":"n","version":2,"details":true})");
}

TEST(SupportedInterfaceTest, CopyHasItsOwnDetails) {
  SupportedInterface copy;
  {
    SupportedInterface record("n", 1, parseJSON(R"({"type":"valtor"})").release());
    copy = record;
    EXPECT_NE(copy.details(), record.details());
    record.setDetails(nullptr);
  }
  EXPECT_EQ(printJSON(SupportedInterface(copy).toJSON().get(), false),
            R"({"name":"n","version":1,"details":{"type":"valtor"}})");
}

}  // namespace
}  // namespace valtor::test
