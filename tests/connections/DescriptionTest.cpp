#include "connections/ConnectionFakes.h"
#include "connections/ConnectionPointTCPServer.h"

namespace valtor::test {
namespace {

TEST(DeviceConnectionDetails, TakesWhatIsThereAndSaysWhetherItWasEnough) {
  const DeviceConnectionDetails before("C", "U", "F", "T", "N");
  EXPECT_EQ(
      loaded(
          R"({"connectionPoint":"c","uniqueID":"u","name":"n","type":"t","family":3,"details":17})",
          before),
      R"({"type":"t","family":"F","name":"n","uniqueID":"u","connectionPoint":"c","details":17})");
  EXPECT_EQ(loaded(R"({"type":"t","name":5,"uniqueID":"u","connectionPoint":"c"})", before),
            R"(failed {"type":"t","family":"F","name":"N","uniqueID":"u","connectionPoint":"c"})");
  EXPECT_EQ(loaded(R"({"family":"","connectionPoint":[],"details":{"a": [1, null]}})", before),
            R"(failed {"type":"T","family":"","name":"N","uniqueID":"U","connectionPoint":"C",)"
            R"("details":{"a":[1,null]}})");
}

TEST(ConnectionPointTCPServer, LoadsUpToTheFirstMissingMember) {
  const ConnectionPointTCPServer before(7);
  EXPECT_EQ(loaded(R"({"numConnections":3,"connectionLimit":"4","type":"t",)"
                   R"("protocol":"p","port":null,"enabled":false})",
                   before),
            R"({"enabled":false,"port":0,"protocol":"p","type":"t",)"
            R"("connectionLimit":0,"numConnections":3})");
  EXPECT_EQ(loaded(R"({"enabled":false,"port":1,"connectionLimit":4})", before),
            R"(failed {"enabled":false,"port":1,"protocol":"tcp","type":"",)"
            R"("connectionLimit":4,"numConnections":0})");
  EXPECT_EQ(loaded(R"({"enabled":1,"port":1,"connectionLimit":4,"numConnections":0})", before),
            R"(failed {"enabled":true,"port":7,"protocol":"tcp","type":"",)"
            R"("connectionLimit":10,"numConnections":0})");
}

TEST(ConnectionPointTCPServer, EveryFieldButEnabledMakesADifferenceUntilItIsAssigned) {
  const ConnectionPointTCPServer stored(5000, "udp");
  const std::function<void(ConnectionPointTCPServer&)> changes[] = {
      [](auto& server) { server.setPort(5001); },
      [](auto& server) { server.setConnectionLimit(11); },
      [](auto& server) { server.setNumConnections(1); },
      [](auto& server) { server.setAllow({"b"}); },
      [](auto& server) { server.setBlock({"c"}); },
      [](auto& server) { server = ConnectionPointTCPServer(5000, "tcp"); },
  };
  for (const auto& change : changes) {
    ConnectionPointTCPServer received = stored;
    received.setEnabled(false);
    EXPECT_TRUE(stored.isEqual(&received));
    change(received);
    ConnectionPointTCPServer updated = stored;
    EXPECT_FALSE(updated.isEqual(&received)) << rendered(received);
    updated.assign(&received);
    EXPECT_TRUE(updated.isEqual(&received)) << rendered(received);
    EXPECT_EQ(rendered(updated), rendered(received));
  }
}

}  // namespace
}  // namespace valtor::test
