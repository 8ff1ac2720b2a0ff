// What every JSON-backed class of this layer must satisfy.

#include <initializer_list>

#include "router/DeviceParam.h"
#include "router/LevelMask.h"
#include "router/RouteOperation.h"
#include "router/SupportedInterface.h"
#include "support/Vocabulary.h"

namespace valtor::test {
namespace {

// An item and how a fresh object renders that loaded it, after "failed " when the load failed. An
// item by itself renders as the same text.
struct Loading {
  const char* item;
  const char* rendered = item;
};

// A parameter loads from a member and renders as the object around it.
class WrappedParam : public DeviceParam {
 public:
  int loadFromJSON(const cJSON* item) override {
    return DeviceParam::loadFromJSON(cJSON_IsObject(item) ? item->child : item);
  }
};

template <class T>
void expectConformance(std::initializer_list<Loading> loadings) {
  for (const auto& [item, rendered] : loadings) {
    EXPECT_EQ(loaded<T>(item), rendered);
  }
  // Wrong types anywhere do no harm.
  EXPECT_EQ(T().loadFromJSON(nullptr), -1);
  const std::string list = R"([null,true,-1e300,7,"x",[],{},[7,7],[[7]],[7,[[]]],[7,{}]])";
  for (const std::string& item :
       {list, R"({"level":)" + list + R"(,"destRange":{"a":1,"b":2},"userID":"u"})",
        R"({"level":[1],"status":)" + list + R"(,"protect":)" + list + "}",
        R"({"name":"n","version":"x","details":)" + list + "}"}) {
    loaded<T>(item);
  }
}

TEST(ConformanceTest, LoadedIsRenderedAndLoadsAgain) {
  expectConformance<LevelMask>({{"[0,5,33]"}, {"[31,32,65535]"}, {R"({"a":7})", "failed []"}});
  expectConformance<RouteOperation>(
      {{R"({"level":[3],"destination":[7,-1,7]})"},
       {R"({"level":[0,1],"machineControl":true,"status":[[10,[1,2]]],"protect":[[10,[0]]],"userID":-5})"},
       {R"({"level":[2],"destRange":[2147483647,2147483647],"userID":0})"},
       {R"({"level":[1],"destRange":[5,3]})", R"({"level":[1]})"},
       {R"({"level":[1],"destRange":[-1,4]})", R"({"level":[1]})"},
       {R"({"level":[1],"destRange":[1,4,5]})", R"({"level":[1]})"},
       {R"({"destination":[4],"destRange":"x"})", R"(failed {"destination":[4]})"},
       {R"({"level":[1],"machineControl":1})", R"({"level":[1]})"},
       {R"({"level":[1],"status":[[7,[]]]})", R"(failed {"level":[1]})"},
       {R"({"level":[1],"status":[],"protect":[[1,[0]]]})",
        R"({"level":[1],"protect":[[1,[0]]]})"}});
  expectConformance<RouteOperationStatus>(
      {{"[[9,[1,2,3]],[1,[-1]],[9,[4]]]"},
       {R"([[1,[2]],[7,[]],[8],[],{"a":3,"b":[4]},5,[3,["x"]]])", "[[1,[2]],[3,[0]]]"}});
  expectConformance<ProtectStatusItem>(
      {{"0"}, {"[1,12]"}, {"[2,-1]"}, {"[-1,3]"}, {"5", "failed 0"}, {"[3,12]", "failed 0"}});
  expectConformance<ProtectStatusArray>(
      {{"[[1,[0]],[2,[[1,1]]],[30,[[2,2],0]]]"},
       {R"([[30,[0]],[10,[[9,9]]],[30,[[1,1]]],[6],[],7])", "[[10,[0]],[30,[[1,1]]]]"}});
  expectConformance<DeviceID>({{R"("r1")"}, {R"("with \"quotes\" and \n")"}});
  expectConformance<ParamOID>({{R"("r1.level.3.name")"}, {R"(".x")"}, {R"("level")", "failed 0"}});
  expectConformance<ParamStringValue>({{R"("text")"}, {"7", "0"}, {R"("")", "0"}});
  expectConformance<WrappedParam>({{R"({"gain":"3"})"}, {R"({"a.b":0})"}});
  expectConformance<SupportedInterface>(
      {{R"({"name":"","version":2.5,"details":{"type":[1,null]}})"},
       {R"({"name":7,"version":1})", R"(failed {"name":"","version":0})"},
       {R"({"NAME":"n","Version":-1})", R"({"name":"n","version":-1})"},
       {R"({"name":"n","version":1e999})", R"({"name":"n","version":0})"}});
}

}  // namespace
}  // namespace valtor::test
