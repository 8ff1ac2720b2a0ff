#include "bus/message/PellInternalStreamParser.h"
#include "e2e/EndToEnd.h"

namespace valtor::test {
namespace {

class BrokenInputTest : public EndToEndTest {
 protected:
  // The bytes arrive on the controller's bus and on a router's; whatever follows is served.
  void expectServiceAfter(const std::string& bytes) {
    (*site.controller)->writeRaw("valtorRemote", bytes);
    (*site.alpha)->writeRaw("alpha", bytes);
    EXPECT_TRUE(site.isServed()) << bytes.substr(0, 100);
    EXPECT_TRUE(site.statusArrivesFrom(*site.alpha)) << bytes.substr(0, 100);
  }
  void expectLinksStand() const {
    EXPECT_EQ(site.controller->countEvents("ACCEPT"), 1U);
    EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 1U);
  }
};

TEST_F(BrokenInputTest, BrokenFramesAndHeadersAreSkipped) {
  startComplete();
  const std::string cases[] = {":;:::;;2:{}?1:{};",
                               "4294967290:",
                               "99999999999999999999:",
                               std::string(100000, 'x'),
                               std::string("\x00\xff\x80:\x01;\n\x00", 8),
                               frame(std::string("[\"GET\", \"dev\0ice\", 1, 0, 0]\n{}", 30)),
                               frame(std::string("[\"SET\", \"device\", 1, 0, 0]\n{\0}", 30)),
                               frame("[\"GET\", \"" + std::string(70000, 'p') + "\", 1, 0, 0]\n{}"),
                               frame("") + frame("null\n{}") + frame(R"(["GET", "device", 4, 0)"),
                               frame("[\"GET\", \"device\", 1e300, null, 0]\n{\"id\":\"1\"}"),
                               frame("[\"GET\", \"device\", 4, 0, {\"x\":[]}]\n{\"id\":\"1\"}"),
                               frame("[\"GET\", \"device\", 4, 0, \"99:99:99\"]\n{\"id\":\"1\"}")};
  for (const std::string& bytes : cases) {
    expectServiceAfter(bytes);
  }
  expectLinksStand();
}

TEST_F(BrokenInputTest, BodiesThatAreNoJSONOrOfWrongTypesHarmNothing) {
  startComplete();
  std::vector<std::string> bodies = {
      R"({"param":)",
      "[1,2]",
      R"({"param":[1,{}],"objectName":7})",
      R"({"param":{"mdxMasterState":5},"objectName":[null,{},[],1e400]})",
      R"({"param":7,"param":{"a":1},"objectBase":3,"objectName":{"a":"b"}})",
      std::string(1200, '[') + std::string(1200, ']'),
      std::string(999, '[') + std::string(999, ']'),  // as deep as is read
      "{\"a\":" + std::string(200000, '[')};
  for (const char* phy :
       {"", "7", R"({"type":"tcp"})", R"({"type":"tcp","ipAddress":"127.0.0.6","port":-5})",
        R"({"type":"tcp","ipAddress":"127.0.0.6","port":65536})", R"({"type":"tcp","port":1e300})",
        R"({"type":"serial","dev":7,"speed":"fast"})"}) {
    bodies.push_back(R"({"param":{"connectionPoint":[null,{"type":"valtor","name":"odd",)"
                     R"("uniqueID":"odd","phy":[)" +
                     std::string(phy) + "]}]}}");
  }
  for (const std::string& body : bodies) {
    for (const std::string start :
         {"[\"GET\", \"", "[\"UPDATE\", \"", "[\"DEL\", \"", "[\"RSP\", \""}) {
      std::string all;
      for (const std::string path : {"device", "system", "db", "device.x.y", ""}) {
        all += frame(start + path + "\", 100, 0, 0]\n" + body);
      }
      expectServiceAfter(all);
    }
  }
  std::string million = R"({"objectName":[1)";
  for (int i = 1; i < 1'000'000; ++i) {
    million += ",1";
  }
  for (const std::string start :
       {"[\"GET\", \"device\"", "[\"DEL\", \"device\"", "[\"RSP\", \"db\""}) {
    expectServiceAfter(frame(start + ", 100, 0, 0]\n" + million + "]}"));
  }
  expectLinksStand();
}

}  // namespace
}  // namespace valtor::test
