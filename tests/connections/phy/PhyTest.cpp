#include <gtest/gtest.h>
#include <syslog.h>

#include "connections/phy/IPPhy.h"
#include "connections/phy/SerialPhy.h"
#include "connections/phy/TBusPhy.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace valtor {
namespace {

using PhyPtr = std::unique_ptr<ConnectionPointPhy>;

PhyPtr load(const std::string& text) {
  const OwnedJSON item = parseJSON(text);
  return ConnectionPointPhy::createFromJSON(item.get());
}

// The compact rendering; "none" without a phy.
std::string rendered(const ConnectionPointPhy* phy) {
  return phy != nullptr ? printJSON(phy->toJSON().get(), false) : "none";
}

const char* const kTCP = R"({"type":"tcp","ipAddress":"10.0.0.1","port":15000,"server":true})";
const char* const kUDP = R"({"type":"udp","ipAddress":"10.0.0.1","port":15000,"server":true})";
const char* const kSerial =
    R"({"type":"serial","port":"/no/such/device","portType":"RS-485","stopBits":2,"baudRate":9600,"parity":"odd"})";
const char* const kTBus = R"({"type":"tbus","port":"a"})";

// What every kind of phy must satisfy, whatever else it is.
class EveryPhy : public testing::TestWithParam<std::string> {
 protected:
  static PhyPtr make(const std::string& rendering) {
    return rendering == kTBus ? std::make_unique<TBusPhy>("a") : load(rendering);
  }
};

INSTANTIATE_TEST_SUITE_P(Kinds, EveryPhy, testing::Values(kTCP, kUDP, kSerial, kTBus));

TEST_P(EveryPhy, RendersWhatItHoldsAndLoadsItAgain) {
  const std::string& rendering = GetParam();
  const PhyPtr phy = make(rendering);
  ASSERT_EQ(rendered(phy.get()), rendering);
  EXPECT_EQ(rendering.rfind("{\"type\":\"" + phy->getType() + "\"", 0), 0U);
  const PhyPtr again = load(rendering);
  EXPECT_EQ(rendered(again.get()), rendering == kTBus ? "none" : rendering);
}

TEST_P(EveryPhy, EqualsItsLikeAndNothingElse) {
  const PhyPtr phy = make(GetParam());
  EXPECT_TRUE(phy->isEqual(make(GetParam()).get()));
  EXPECT_FALSE(phy->isEqual(nullptr));
  for (const char* other : {kTCP, kUDP, kSerial, kTBus}) {
    EXPECT_EQ(phy->isEqual(make(other).get()), other == GetParam()) << other;
  }
}

TEST_P(EveryPhy, OnlyASerialLineHasSomethingToOpenAndClose) {
  const PhyPtr phy = make(GetParam());
  EXPECT_EQ(phy->openPhy(), -1);
  const test::ConsoleCapture console;
  phy->closePhy(-1);
  EXPECT_EQ(console.text(), GetParam() == kSerial ? "" : "closePhy: " + rendered(phy.get()) + "\n");
}

constexpr const char* kNoType = "ConnectionPointPhy::loadFromJSON - type not specified.\n";
constexpr const char* kParsing = "ConnectionPointPhy::loadFromJSON - data parsing error:\n";
constexpr const char* kAddress = "IPPhy::loadFromJSON - invalid IP Address.\n";
constexpr const char* kPort = "IPPhy::loadFromJSON - invalid port.\n";
constexpr const char* kServer = "TCPPhy::loadFromJSON - invalid server type.\n";

TEST(PhyFactory, WarnsAboutWhatItRefuses) {
  struct Case {
    const char* description;
    std::vector<std::string> warnings;
  };
  const std::string unsupported = "ConnectionPointPhy::loadFromJSON - unsupported type:";
  for (const Case& c : {Case{"{}", {kNoType}},
                        Case{"[\"tcp\"]", {kNoType}},
                        Case{"7", {kNoType}},
                        Case{R"({"type":5})", {kNoType}},
                        Case{R"({"type":null})", {kNoType}},
                        Case{R"({"type":["tcp"]})", {kNoType}},
                        Case{R"({"type":""})", {unsupported + "\n"}},
                        Case{R"({"type":"TCP"})", {unsupported + "TCP\n"}},
                        Case{R"({"type":"Serial"})", {unsupported + "Serial\n"}},
                        Case{kTBus, {kParsing}},
                        Case{R"({"type":"tcp","ipAddress":"10.0.0"})", {kAddress, kParsing}},
                        Case{R"({"type":"udp","ipAddress":"10.0.0.256"})", {kAddress, kParsing}},
                        Case{R"({"type":"tcp","ipAddress":""})", {kAddress, kParsing}},
                        Case{R"({"type":"tcp","ipAddress":"::1"})", {kAddress, kParsing}},
                        Case{R"({"type":"tcp","ipAddress":10})", {kAddress, kParsing}},
                        Case{R"({"type":"tcp","ipAddress":null})", {kAddress, kParsing}},
                        Case{R"({"type":"tcp","port":0})", {kPort, kParsing}},
                        Case{R"({"type":"udp","port":65537,"server":7})", {kPort, kParsing}},
                        Case{R"({"type":"tcp","port":99999999999})", {kPort, kParsing}},
                        Case{R"({"type":"tcp","port":"5000"})", {kPort, kParsing}}}) {
    const test::LogCapture log;
    EXPECT_EQ(load(c.description), nullptr) << c.description;
    ASSERT_EQ(log.lines().size(), c.warnings.size()) << c.description;
    for (std::size_t index = 0; index < c.warnings.size(); ++index) {
      EXPECT_EQ(log.lines()[index].text, c.warnings[index]) << c.description;
      EXPECT_EQ(log.lines()[index].priority, LOG_WARNING) << c.description;
    }
  }
}

TEST(PhyFactory, QuotesAHugeTypeInPart) {
  const test::LogCapture log;
  EXPECT_EQ(load(R"({"type":")" + std::string(1U << 20U, 'x') + "\"}"), nullptr);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_LT(log.lines()[0].text.size(), 66000U);
}

TEST(IPPhy, LoadsEverythingButItsTypeOptionally) {
  struct Case {
    const char* description;
    const char* rendering;
    int serverWarnings;
    bool connectable;
  };
  for (const Case& c :
       {Case{R"({"type":"udp"})", R"({"type":"udp","ipAddress":"","port":0,"server":false})", 0,
             false},
        Case{R"({"server":false,"port":1,"ipAddress":"127.0.0.1","type":"tcp"})",
             R"({"type":"tcp","ipAddress":"127.0.0.1","port":1,"server":false})", 0, true},
        Case{R"({"type":"udp","ipAddress":"1.2.3.4","port":65535,"server":"true"})",
             R"({"type":"udp","ipAddress":"1.2.3.4","port":65535,"server":false})", 1, true},
        Case{R"({"type":"tcp","ipAddress":"1.2.3.4","port":65536,"server":1})",
             R"({"type":"tcp","ipAddress":"1.2.3.4","port":65536,"server":false})", 1, false},
        Case{R"({"type":"tcp","ipAddress":"1.2.3.4","port":-5,"server":null})",
             R"({"type":"tcp","ipAddress":"1.2.3.4","port":-5,"server":false})", 1, false},
        Case{R"({"type":"tcp","ipAddress":"1.2.3.4"})",
             R"({"type":"tcp","ipAddress":"1.2.3.4","port":0,"server":false})", 0, false},
        Case{R"({"type":"tcp","port":15000,"server":true})",
             R"({"type":"tcp","ipAddress":"","port":15000,"server":true})", 0, false}}) {
    const test::LogCapture log;
    const PhyPtr phy = load(c.description);
    ASSERT_EQ(rendered(phy.get()), c.rendering);
    EXPECT_EQ(dynamic_cast<const IPPhy&>(*phy).isConnectable(), c.connectable) << c.description;
    EXPECT_EQ(log.count(LOG_WARNING, kServer), c.serverWarnings) << c.description;
    EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(c.serverWarnings)) << c.description;
  }
}

TEST(SerialPhy, LoadsWhateverItIsGiven) {
  struct Case {
    const char* members;
    const char* rendering;
  };
  for (
      const Case& c :
      {Case{"", R"("port":"","portType":"RS-232","stopBits":1,"baudRate":38400,"parity":"none")"},
       Case{R"(,"port":"/dev/b","portType":"RS-422","stopBits":2,"baudRate":19200,"parity":"even")",
            R"("port":"/dev/b","portType":"RS-422","stopBits":2,"baudRate":19200,"parity":"even")"},
       Case{R"(,"port":5,"portType":"rs-422","stopBits":"x","baudRate":4800,"parity":"mark")",
            R"("port":"","portType":"RS-232","stopBits":0,"baudRate":0,"parity":"even")"},
       Case{
           R"(,"portType":1,"stopBits":-1,"baudRate":57600,"parity":1)",
           R"("port":"","portType":"RS-232","stopBits":4294967295,"baudRate":57600,"parity":"none")"},
       Case{R"(,"baudRate":115200,"parity":"None")",
            R"("port":"","portType":"RS-232","stopBits":1,"baudRate":115200,"parity":"even")"},
       Case{R"(,"baudRate":"9600")",
            R"("port":"","portType":"RS-232","stopBits":1,"baudRate":0,"parity":"none")"}}) {
    const test::LogCapture log;
    const PhyPtr phy = load(std::string(R"({"type":"serial")") + c.members + "}");
    EXPECT_EQ(rendered(phy.get()), std::string(R"({"type":"serial",)") + c.rendering + "}");
    EXPECT_TRUE(log.lines().empty()) << c.members;
  }
}

TEST(Phy, EqualityLooksAtWhatDescribesTheInterface) {
  struct Case {
    const char* one;
    const char* other;
    bool equal;
  };
  for (const Case& c :
       {Case{kTCP, R"({"type":"tcp","ipAddress":"10.0.0.1","port":15000})", true},
        Case{kTCP, R"({"type":"tcp","ipAddress":"10.0.0.2","port":15000,"server":true})", false},
        Case{kTCP, R"({"type":"tcp","ipAddress":"10.0.0.1","port":15001,"server":true})", false},
        Case{R"({"type":"serial"})", R"({"type":"serial","port":"/dev/a"})", false},
        Case{R"({"type":"serial"})", R"({"type":"serial","portType":"RS-422"})", false},
        Case{R"({"type":"serial"})", R"({"type":"serial","stopBits":2})", false},
        Case{R"({"type":"serial"})", R"({"type":"serial","baudRate":9600})", false},
        Case{R"({"type":"serial"})", R"({"type":"serial","parity":"odd"})", false}}) {
    EXPECT_EQ(load(c.one)->isEqual(load(c.other).get()), c.equal) << c.other;
  }
  const TBusPhy link("b");
  EXPECT_TRUE(TBusPhy("a").isEqual(&link));
  // A type alone makes no endpoint.
  const ConnectionPointPhy bare("tcp");
  EXPECT_FALSE(TCPPhy().isEqual(&bare));
}

TEST(Phy, ALoaderWithoutATypeSaysWhose) {
  const test::LogCapture log;
  EXPECT_EQ(ConnectionPointPhy("x").loadFromJSON(nullptr), -1);
  EXPECT_EQ(UDPPhy().loadFromJSON(nullptr), -1);
  EXPECT_EQ(log.count(LOG_WARNING, "IPPhy::loadFromJSON - type not specified.\n"), 2);
  EXPECT_EQ(SerialPhy().loadFromJSON(nullptr), -1);
  EXPECT_EQ(log.count(LOG_WARNING, "SerialPhy::loadFromJSON - type not specified.\n"), 1);
  EXPECT_EQ(log.lines().size(), 3U);
}

}  // namespace
}  // namespace valtor
