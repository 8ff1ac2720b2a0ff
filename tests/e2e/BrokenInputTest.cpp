#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "e2e/EndToEnd.h"

namespace valtor::test {
namespace {

using Bytes = std::string;
using Case = std::pair<const char*, Bytes>;

Bytes framed(const Bytes& payload) { return std::to_string(payload.size()) + ":" + payload + ";"; }

Bytes message(const std::string& header, const Bytes& body) { return framed(header + "\n" + body); }

Bytes repeated(int count, const std::string& text) {
  Bytes all;
  for (int i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

class BrokenInputTest : public EndToEndTest {
 protected:
  // The bytes arrive on the controller's bus and on a router's; whatever follows is served.
  void expectServiceAfter(const std::vector<Case>& cases) {
    startComplete();
    for (const auto& [what, bytes] : cases) {
      ASSERT_EQ((*site.controller)->writeRaw("valtorRemote", bytes), 1U) << what;
      EXPECT_TRUE(isServed()) << what;
      ASSERT_EQ((*site.alpha)->writeRaw("alpha", bytes), 1U) << what;
      EXPECT_TRUE(statusArrivesFrom(*site.alpha)) << what;
    }
    EXPECT_EQ(site.controller->countEvents("ACCEPT"), 1U);
    EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 1U);
  }
};

TEST_F(BrokenInputTest, FramesOfEveryBrokenKind) {
  expectServiceAfter({
      {"length 0", "0:;"},
      {"sign before the length", "-2:{};"},
      {"length that wraps to a negative one", "4294967290:"},
      {"no length", ":;:::;;"},
      {"length above the limit", "2000000000:"},
      {"length that overflows", "99999999999999999999:"},
      {"length that wraps to a small one", "4294967297:x;"},
      {"text instead of frames", Bytes(100000, 'x')},
      {"binary", Bytes("\x00\xff\x80:\x01;\n\x00", 8)},
      {"wrong footer", "2:{}?"},
      {"one byte too many", "1:{};"},
      {"NUL in the payload", framed(Bytes("[\"GET\", \"dev\0ice\", 1, 0, 0]\n{}", 30))},
      {"NUL in the body", framed(Bytes("[\"SET\", \"device\", 1, 0, 0]\n{\0}", 30))},
  });
}

TEST_F(BrokenInputTest, HeadersOfEveryWrongShape) {
  std::vector<Case> cases;
  for (const char* header : {"{}",
                             "[]",
                             "nothing",
                             "\"GET\"",
                             "null",
                             "[1,2,3,4,5]",
                             R"(["GET"])",
                             R"(["GET", "device", 490, 0)",
                             R"(["FOO", "device", 490, 0, 0])",
                             R"([7, "device", 490, 0, 0])",
                             R"(["GET", 5, 490, 0, 0])",
                             R"(["GET", ["device"], 490, 0, 0])",
                             R"(["GET", "device", "490", 0, 0])",
                             R"(["GET", "device", -1, 0, 0])",
                             R"(["GET", "device", 490, -7, 0])",
                             R"(["GET", "device", 1e300, 0, 0])",
                             R"(["GET", "device", 490, null, 0])",
                             R"(["GET", "dev\u0001ice", 490, 0, 0])",
                             R"(["GET", "de\"vice", 490, 0, 0])",
                             R"(["GET", "device", 490, 0, {"x":[]}])",
                             R"(["GET", "device", 490, 0, "99:99:99"])",
                             ""}) {
    cases.emplace_back(header, message(header, R"({"id":"1"})"));
    cases.emplace_back(header, framed(header));
  }
  cases.emplace_back("long path",
                     message("[\"GET\", \"" + Bytes(70000, 'p') + "\", 1, 0, 0]", "{}"));
  expectServiceAfter(cases);
}

TEST_F(BrokenInputTest, BodiesThatAreNoJSONOrOfWrongTypes) {
  const std::string odd = R"({"type":"valtor","name":"odd","uniqueID":"odd","phy":[)";
  std::vector<Case> cases;
  for (const char* kind : {"GET", "SET", "DEL", "UPDATE", "RSP"}) {
    for (const Bytes& body : std::vector<Bytes>{
             "", "no JSON", "{\"param\":", "[1,2]", "7", "{\"param\":[1,{}],\"objectName\":7}",
             R"({"param":{"mdxMasterState":5},"objectName":[null,{},[],1e400]})",
             R"({"param":7,"param":{"a":1},"objectBase":3,"objectName":{"a":"b"}})",
             Bytes(1200, '[') + Bytes(1200, ']'), "{\"a\":" + Bytes(200000, '['),
             "{\"objectName\":[1" + repeated(1000000, ",1") + "]}"}) {
      for (const char* path : {"device", "system", "db", "device.x.y", ""}) {
        if (body.size() < 100000 || *path == 'd') {
          cases.emplace_back(
              kind, message("[\"" + std::string(kind) + "\", \"" + path + "\", 100, 0, 0]", body));
        }
      }
    }
  }
  for (const char* phy : {"", "7", R"({"type":"tcp"})", R"({"type":"tcp","port":5})",
                          R"({"type":"tcp","ipAddress":"127.0.0.6","port":-5})",
                          R"({"type":"tcp","ipAddress":"127.0.0.6","port":0})",
                          R"({"type":"tcp","ipAddress":"127.0.0.6","port":65536})",
                          R"({"type":"tcp","ipAddress":"127.0.0.6","port":1e300})",
                          R"({"type":"tcp","ipAddress":"router","port":1})",
                          R"({"type":"serial","dev":7,"speed":"fast"})"}) {
    cases.emplace_back(phy, message("[\"UPDATE\", \"device\", 490, 0, 0]",
                                    R"({"param":{"connectionPoint":[)" + odd + phy + "]}]}}"));
  }
  expectServiceAfter(cases);
}

TEST_F(BrokenInputTest, AFrameThatTheEndOfItsLinkCutsSpoilsNothingOnTheNext) {
  startComplete();
  const Bytes whole = message(R"(["GET", "device", 490, 0, 0])", Bytes(100000, ' ') + "{}");
  for (const std::size_t length : {std::size_t{1}, std::size_t{9}, std::size_t{60000}}) {
    for (RunningNode* bus : {site.controller.get(), site.alpha.get()}) {
      (*bus)->writeRaw(MessageNode::kEveryone, whole.substr(0, length));
      (*bus)->closeConnections(MessageNode::kEveryone);
      ASSERT_TRUE(BridgeSite::becomesLeft(*bus) && BridgeSite::becomesLinked(*bus));
    }
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(statusArrivesFrom(*site.alpha));
  }
}

}  // namespace
}  // namespace valtor::test
