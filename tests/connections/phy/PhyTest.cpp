#include "connections/phy/IPPhy.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

using PhyPtr = std::unique_ptr<ConnectionPointPhy>;

PhyPtr load(const std::string& text) {
  return ConnectionPointPhy::createFromJSON(parseJSON(text).get());
}

const char* const kTCP = R"({"type":"tcp","ipAddress":"10.0.0.1","port":15000,"server":true})";
const char* const kSerial =
    R"({"type":"serial","port":"/dev/b","portType":"RS-422","stopBits":2,"baudRate":19200,"parity":"odd"})";

TEST(PhyFactory, WarnsAboutWhatItRefuses) {
  const std::string noType = "ConnectionPointPhy::loadFromJSON - type not specified.\n";
  const std::string parsing = "ConnectionPointPhy::loadFromJSON - data parsing error:\n";
  const std::string address = "IPPhy::loadFromJSON - invalid IP Address.\n" + parsing;
  const std::string port = "IPPhy::loadFromJSON - invalid port.\n" + parsing;
  const std::pair<const char*, std::string> cases[] = {
      {"[\"tcp\"]", noType},
      {R"({"type":5})", noType},
      {R"({"type":"TCP"})", "ConnectionPointPhy::loadFromJSON - unsupported type:TCP\n"},
      {R"({"type":"tbus","port":"a"})", parsing},
      {R"({"type":"tcp","ipAddress":"10.0.0"})", address},
      {R"({"type":"tcp","ipAddress":10})", address},
      {R"({"type":"tcp","port":0})", port},
      {R"({"type":"udp","port":65537})", port},
      {R"({"type":"tcp","port":"5000"})", port},
  };
  for (const auto& [description, warnings] : cases) {
    const test::LogCapture log;
    EXPECT_EQ(load(description), nullptr) << description;
    std::string logged;
    for (const test::LogLine& line : log.lines()) {
      logged += line.priority == LOG_WARNING ? line.text : "no warning";
    }
    EXPECT_EQ(logged, warnings) << description;
  }
}

TEST(PhyFactory, LoadsWhatItIsGivenAndRendersItForTheNextLoad) {
  const std::pair<std::string, std::string> cases[] = {
      {kTCP, kTCP},
      {kSerial, kSerial},
      {R"({"type":"udp","ipAddress":"1.2.3.4","port":65535,"server":"true"})",
       R"({"type":"udp","ipAddress":"1.2.3.4","port":65535,"server":false})"},
      {R"({"type":"serial"})",
       R"({"type":"serial","port":"","portType":"RS-232","stopBits":1,"baudRate":38400,"parity":"none"})"},
      {R"({"type":"serial","port":5,"portType":"rs-422","stopBits":"x","baudRate":4800,"parity":"mark"})",
       R"({"type":"serial","port":"","portType":"RS-232","stopBits":0,"baudRate":0,"parity":"even"})"},
  };
  const test::LogCapture log;
  for (const auto& [description, rendering] : cases) {
    EXPECT_EQ(printJSON(load(description)->toJSON().get(), false), rendering);
    EXPECT_EQ(printJSON(load(rendering)->toJSON().get(), false), rendering);
  }
  EXPECT_EQ(log.count(LOG_WARNING, "TCPPhy::loadFromJSON - invalid server type.\n"), 1);
}

TEST(Phy, EqualityLooksAtWhatDescribesTheInterface) {
  const PhyPtr tcp = load(kTCP);
  const PhyPtr serial = load(R"({"type":"serial"})");
  for (const char* other :
       {R"({"type":"udp","ipAddress":"10.0.0.1","port":15000})",
        R"({"type":"tcp","ipAddress":"10.0.0.2","port":15000})",
        R"({"type":"tcp","ipAddress":"10.0.0.1","port":15001})",
        R"({"type":"serial","port":"/dev/a"})", R"({"type":"serial","portType":"RS-422"})",
        R"({"type":"serial","stopBits":2})", R"({"type":"serial","baudRate":9600})",
        R"({"type":"serial","parity":"odd"})"}) {
    EXPECT_FALSE(tcp->isEqual(load(other).get())) << other;
    EXPECT_FALSE(serial->isEqual(load(other).get())) << other;
  }
  EXPECT_TRUE(tcp->isEqual(load(kTCP).get()));
  EXPECT_FALSE(tcp->isEqual(nullptr));
}

}  // namespace
}  // namespace valtor
