#include <gtest/gtest.h>
#include <string>
#include <syslog.h>

#include "peers/RemoteRouters.h"
#include "support/Eventually.h"

namespace valtor {
namespace {

using test::bodyOf;
using test::eventually;
using test::RemoteRouters;
using test::routerText;
using test::ScriptedNode;

// The body without its leading identifier, which differs from run to run.
std::string withoutId(const std::string& payload) {
  const std::string body = bodyOf(payload);
  return "{" + body.substr(body.find(',') + 1);
}

std::string headerOf(const std::string& payload) { return payload.substr(0, payload.find('\n')); }

std::string announcement(const ScriptedNode& node, const char* key, const char* connected) {
  return std::string("{\"") + key +
         "\":{\"connectionPoint\":[{\"type\":\"valtor\",\"name\":\"router\",\"uniqueID\":\"r\","
         "\"phy\":[{\"type\":\"tcp\",\"ipAddress\":\"" +
         node.address() + "\",\"port\":" + std::to_string(node.port()) +
         ",\"server\":true}],\"enabled\":true,\"connected\":" + connected +
         ",\"showInUI\":true}]}}";
}

TEST(RemoteValtorConnectionPoint, LinkUpAsksTheMasterBusForWhatTheRouterNeeds) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  const auto point = routers.put("r", routerText("r", node));
  ASSERT_TRUE(routers.comesUp(*point));
  std::string levels;
  for (int level = 0; level < 64; ++level) {
    levels += (level == 0 ? "" : ",") + std::to_string(level);
  }
  const auto up = routers.bus.payloads();
  ASSERT_EQ(up.size(), 3U);
  EXPECT_EQ(headerOf(up[0]), "[\"NOT\", \"device\", 101, 0, 0]");
  EXPECT_EQ(withoutId(up[0]), announcement(node, "param", "true"));
  EXPECT_EQ(headerOf(up[1]), "[\"GET\", \"db\", 101, 0, 0]");
  EXPECT_EQ(withoutId(up[1]), "{\"param\":{\"objectName\":[\"logicalSources\",\"logicalDests\"]}}");
  EXPECT_EQ(headerOf(up[2]), "[\"CMD\", \"route\", 101, 0, 0]");
  EXPECT_EQ(withoutId(up[2]),
            "{\"stat\":[{\"level\":[" + levels + "],\"destRange\":[0,4095]}],\"userID\":0}");

  const auto link = node.accept();
  EXPECT_NE(link->readFrame().find("{\"name\":\"router\",\"connID\":10000,"), std::string::npos);
  node.stop();
  link->close();
  ASSERT_TRUE(eventually([&] { return !point->isConnected(); }));
  ASSERT_TRUE(eventually([&] { return routers.bus.payloads().size() == 4; }));
  EXPECT_EQ(withoutId(routers.bus.payloads()[3]), announcement(node, "param", "false"));
}

TEST(RemoteValtorConnectionPoint, ConnectsOnceAndReusesItsPeer) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  const auto point = routers.put("r", routerText("r", node));
  const auto peer = RemoteRouters::peer("r");
  ASSERT_TRUE(routers.comesUp(*point));
  EXPECT_EQ(point->connect(), 1);
  EXPECT_EQ(RemoteRouters::peerCount(), 1U);
  const auto first = node.accept();

  point->disconnect();
  EXPECT_FALSE(point->isConnected());
  EXPECT_TRUE(first->waitForHangUp());
  EXPECT_EQ(RemoteRouters::peer("r"), peer);
  routers.bus.clear();
  EXPECT_EQ(point->connect(), 1);
  EXPECT_TRUE(routers.comesUp(*point));
  EXPECT_EQ(RemoteRouters::peer("r"), peer);
  EXPECT_NE(node.accept()->readFrame().find("login"), std::string::npos);
}

TEST(RemoteValtorConnectionPoint, RemovalTakesThePeerWithIt) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  ASSERT_TRUE(routers.comesUp(*routers.put("r", routerText("r", node))));
  const auto link = node.accept();
  routers.bus.clear();
  routers.removeAll();
  EXPECT_EQ(routers.manager->findConnectionPoint("r"), nullptr);
  EXPECT_EQ(RemoteRouters::peerCount(), 0U);
  EXPECT_TRUE(link->waitForHangUp());
  const auto down = routers.bus.payloads();
  ASSERT_EQ(down.size(), 2U);
  EXPECT_EQ(withoutId(down[0]), announcement(node, "param", "false"));
  EXPECT_EQ(withoutId(down[1]), announcement(node, "paramDelete", "false"));
}

TEST(RemoteValtorConnectionPoint, DestroyedWhileConnectedItLeavesNoPeer) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  {
    const auto point = routers.make(routerText("r", node));
    EXPECT_EQ(point->connect(), 1);
    EXPECT_TRUE(routers.comesUp(*point));
    EXPECT_EQ(point->createDeviceConnection(DeviceConnectionDetails()), nullptr);
  }
  EXPECT_EQ(RemoteRouters::peerCount(), 0U);
  EXPECT_EQ(withoutId(routers.bus.payloads().back()), announcement(node, "param", "false"));
}

TEST(RemoteValtorConnectionPoint, RefusedAndMergedTemporariesLeaveTheLinkAlone) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  const auto point = routers.put("r", routerText("r", node));
  ASSERT_TRUE(routers.comesUp(*point));
  routers.bus.clear();

  EXPECT_EQ(routers.make(routerText("r", "127.0.0.1", node.port())), nullptr);
  {
    const auto resembling = routers.make(routerText("r", node));
    resembling->disconnect();
    dynamic_cast<RemoteValtorConnectionPoint&>(*resembling).releasePeer();
  }
  EXPECT_EQ(routers.put("r", routerText("r", node)), point);
  EXPECT_TRUE(point->isConnected());
  EXPECT_TRUE(RemoteRouters::peer("r")->isConnected());
  EXPECT_TRUE(routers.bus.payloads().empty());
  dynamic_cast<RemoteValtorConnectionPoint&>(*point).releasePeer();
  EXPECT_FALSE(point->isConnected());
  EXPECT_EQ(RemoteRouters::peerCount(), 0U);
}

TEST(RemoteValtorConnectionPoint, TakesOverThePeerOfTheOneItReplaces) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  auto older = routers.make(routerText("r", node));
  older->connect();
  ASSERT_TRUE(routers.comesUp(*older));
  const auto peer = RemoteRouters::peer("r");
  const auto newer = routers.make(routerText("r", node));
  EXPECT_EQ(newer->connect(), 1);
  EXPECT_FALSE(older->isConnected());
  EXPECT_TRUE(newer->isConnected());
  older.reset();
  EXPECT_TRUE(newer->isConnected());
  EXPECT_EQ(RemoteRouters::peer("r"), peer);
  EXPECT_NE(routers.bus.payloads().back().find("\"stat\""), std::string::npos);
}

TEST(RemoteValtorConnectionPoint, FollowsARouterThatMoves) {
  RemoteRouters routers;
  ScriptedNode home("127.0.0.2");
  ScriptedNode away("127.0.0.3");
  const auto point = routers.put("r", routerText("r", home));
  ASSERT_TRUE(routers.comesUp(*point));
  const auto first = home.accept();
  const auto peer = RemoteRouters::peer("r");
  for (ScriptedNode* const node : {&away, &home}) {
    routers.bus.clear();
    EXPECT_EQ(routers.put("r", routerText("r", *node)), point);
    EXPECT_TRUE(routers.comesUp(*point));
    EXPECT_EQ(peer->host(), node->address());
    EXPECT_EQ(peer->port(), node->port());
    EXPECT_NE(node->accept()->readFrame().find("login"), std::string::npos);
  }
  EXPECT_TRUE(first->waitForHangUp());
  EXPECT_EQ(RemoteRouters::peer("r"), peer);
}

TEST(RemoteValtorConnectionPoint, StaysDownWithoutAPlaceToConnectTo) {
  struct Case {
    const char* phy;
    int warnings;
  };
  const Case cases[] = {
      {R"({"type":"tcp","port":15000,"server":true})", 1},
      {R"({"type":"tcp","ipAddress":"127.0.0.2","port":-5,"server":true})", 1},
      {R"({"type":"tcp","ipAddress":"127.0.0.2","port":65536,"server":true})", 1},
      {R"({"type":"tcp","ipAddress":"127.0.0.2","server":true})", 1},
      {R"({"type":"serial","port":"/dev/a"})", 0},
      {R"({"type":"udp","ipAddress":"127.0.0.2","port":4000,"server":true})", 0},
  };
  RemoteRouters routers;
  for (const Case& one : cases) {
    routers.log.clear();
    const auto point = routers.make(
        std::string(R"({"type":"valtor","name":"lost","uniqueID":"r","phy":[)") + one.phy + "]}");
    ASSERT_NE(point, nullptr) << one.phy;
    EXPECT_EQ(point->connect(), 0) << one.phy;
    EXPECT_FALSE(point->isConnected());
    EXPECT_EQ(routers.log.countContaining("RemoteValtorConnectionPoint lost (r) stays down"),
              one.warnings)
        << one.phy;
    EXPECT_EQ(RemoteRouters::peerCount(), 0U);
  }
}

TEST(RemoteValtorConnectionPointManager, RefusesTheLoopbackUnlessToldOtherwise) {
  RemoteRouters routers;
  EXPECT_EQ(routers.make(routerText("a", "127.0.0.1", 4000)), nullptr);
  EXPECT_EQ(routers.make(R"({"type":"valtor"})"), nullptr);
  EXPECT_TRUE(routers.bus.subscribed().empty());
  EXPECT_NE(routers.make(routerText("a", "127.0.0.2", 4000)), nullptr);
  EXPECT_EQ(routers.bus.subscribed(), std::vector<std::string>{"device*"});

  routers.manager->setRejectLoopback(false);
  ScriptedNode node("127.0.0.1");
  const auto point = routers.make(routerText("a", node));
  ASSERT_NE(point, nullptr);
  EXPECT_TRUE(point->isDeletable());
  EXPECT_EQ(point->connect(), 1);
  EXPECT_TRUE(routers.comesUp(*point));
}

TEST(RemoteValtorConnectionPointManager, OffersEveryMessageToTheRouters) {
  RemoteRouters routers;
  EXPECT_EQ(printJSON(routers.manager->toJSON().get(), false),
            R"({"type":"valtor","phy":[{"type":"tcp","ipAddress":"192.168.1.2","port":15000,)"
            R"("server":true}]})");
  ScriptedNode node("127.0.0.2");
  routers.put("r", routerText("r", node));
  const auto link = node.accept();
  link->readFrame();
  link->readFrame();
  const std::string taken =
      "[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"1@2.x\",\"objectName\":[ \"connectionPoint\" ]}";
  const std::string foreign = "[\"CMD\", \"route\", 490, 0, 0]\n{\"take\": 1.0}";
  EXPECT_TRUE(routers.handle(taken));
  EXPECT_FALSE(routers.handle(foreign));
  EXPECT_EQ(link->readFrame(), taken);
  EXPECT_EQ(link->readFrame(), foreign);
  setRouterPeerManager(nullptr);
  EXPECT_FALSE(routers.handle(foreign));
}

}  // namespace
}  // namespace valtor
