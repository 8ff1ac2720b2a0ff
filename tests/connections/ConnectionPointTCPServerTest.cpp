#include <gtest/gtest.h>

#include "connections/ConnectionPointTCPServer.h"

namespace valtor {
namespace {

std::string rendered(const ConnectionPointTCPServer& server) {
  return printJSON(server.toJSON().get(), false);
}

TEST(ConnectionPointTCPServer, LoadsUpToTheFirstMissingMember) {
  struct Case {
    const char* description;
    int result;
    const char* rendering;
  };
  const char* untouched =
      R"({"enabled":true,"port":7,"protocol":"tcp","type":"","connectionLimit":10,"numConnections":0})";
  for (
      const Case& c :
      {Case{
           R"({"enabled":true,"port":5000,"connectionLimit":4,"numConnections":0})", 0,
           R"({"enabled":true,"port":5000,"protocol":"tcp","type":"","connectionLimit":4,"numConnections":0})"},
       Case{
           R"({"numConnections":3,"connectionLimit":"4","type":"t","protocol":"p","port":null,"enabled":false})",
           0,
           R"({"enabled":false,"port":0,"protocol":"p","type":"t","connectionLimit":0,"numConnections":3})"},
       Case{
           R"({"enabled":false,"port":1,"protocol":"p","type":"t","connectionLimit":4})", -1,
           R"({"enabled":false,"port":1,"protocol":"p","type":"t","connectionLimit":4,"numConnections":0})"},
       Case{R"({"enabled":1,"port":1,"connectionLimit":4,"numConnections":0})", -1, untouched},
       Case{R"({"port":1,"connectionLimit":4,"numConnections":0})", -1, untouched},
       Case{"[1,2]", -1, untouched}, Case{"5", -1, untouched}}) {
    ConnectionPointTCPServer server(7);
    const OwnedJSON item = parseJSON(c.description);
    EXPECT_EQ(server.loadFromJSON(item.get()), c.result) << c.description;
    EXPECT_EQ(rendered(server), c.rendering) << c.description;
    if (c.result == 0) {
      ConnectionPointTCPServer again;
      EXPECT_EQ(again.loadFromJSON(server.toJSON().get()), 0);
      EXPECT_EQ(rendered(again), c.rendering);
    }
  }
  EXPECT_EQ(ConnectionPointTCPServer().loadFromJSON(nullptr), -1);
}

TEST(ConnectionPointTCPServer, EveryFieldButEnabledMakesADifferenceUntilItIsAssigned) {
  ConnectionPointTCPServer stored(5000, "udp");
  stored.setAllow({"a", "b"});
  EXPECT_FALSE(stored.isEqual(nullptr));

  ConnectionPointTCPServer disabled = stored;
  disabled.setEnabled(false);
  EXPECT_TRUE(stored.isEqual(&disabled));

  std::vector<ConnectionPointTCPServer> received(6, stored);
  received[0].setPort(5001);
  received[1].setConnectionLimit(11);
  received[2].setNumConnections(1);
  received[3].setAllow({"b", "a"});
  received[4].setBlock({"c"});
  received[5] = ConnectionPointTCPServer(5000, "tcp");
  received[5].setEnabled(false);
  for (const ConnectionPointTCPServer& other : received) {
    ConnectionPointTCPServer updated = stored;
    EXPECT_FALSE(updated.isEqual(&other)) << rendered(other);
    updated.assign(&other);
    EXPECT_TRUE(updated.isEqual(&other)) << rendered(other);
    EXPECT_EQ(rendered(updated), rendered(other));
  }
}

}  // namespace
}  // namespace valtor
