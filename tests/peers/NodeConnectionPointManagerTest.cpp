#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "peers/MasterBus.h"
#include "peers/ValtorRouterPeerConnection.h"
#include "peers/ValtorRouterPeerManager.h"
#include "support/ConsoleCapture.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/ScriptedNode.h"
#include "support/TemporaryFolder.h"

namespace valtor {
namespace {

using test::bodyOf;
using test::ConsoleCapture;
using test::eventually;
using test::MasterBus;
using test::received;
using test::ScriptedNode;

// A manager with its file in a folder of its own. Its peers lead to ports of a node that listens.
class NodeConnectionPointManager : public testing::Test {
 protected:
  static std::string peerText(const std::string& id, int port, const char* type = "Valtor Peer") {
    return std::string("{\"type\":\"") + type + "\",\"name\":\"N" + id + "\",\"uniqueID\":\"" + id +
           "\",\"phy\":[{\"type\":\"tcp\",\"ipAddress\":\"127.0.0.2\",\"port\":" +
           std::to_string(port) + ",\"server\":true}]}";
  }
  std::string list(const std::vector<std::string>& ids) const {
    std::string text;
    for (const std::string& id : ids) {
      text += (text.empty() ? "" : ",") + peerText(id, node_.port());
    }
    return "{\"connectionPoint\":[" + text + "]}";
  }
  int load(const std::string& text) { return manager_.loadFromJSON(parseJSON(text).get()); }
  std::string ids() const {
    std::string text;
    for (const auto& peer : manager_.peers()) {
      text += (text.empty() ? "" : ",") + peer->uniqueID();
    }
    return text;
  }
  bool request(const std::string& kind, const std::string& body) {
    return manager_.handleMessage(received("[\"" + kind + "\", \"device\", 490, 0, 0]\n" + body),
                                  responses_);
  }
  std::string file() const { return test::fileContent(folder_.at("peers.json")); }

  test::LogCapture log_;
  ConsoleCapture console_;
  test::TemporaryFolder folder_;
  MasterBus bus_;
  ScriptedNode node_{"127.0.0.2"};
  ValtorNodeConnectionPointManager manager_{folder_.at("peers"), &bus_};
  ResponseList responses_;
};

TEST_F(NodeConnectionPointManager, BuildsThePeersOfItsTypeAndConnectsThem) {
  EXPECT_EQ(manager_.loadFromJSON(nullptr), -1);
  EXPECT_EQ(load("{\"connectionPoint\":[" + peerText("a", node_.port()) + "," +
                 peerText("x", node_.port(), "other") + ",7,{\"type\":\"Valtor Peer\"}," +
                 peerText("b", node_.port()) + "]}"),
            0);
  EXPECT_EQ(ids(), "a,b");
  EXPECT_TRUE(eventually([&] { return manager_.findPeer("a")->isConnected(); }));
  EXPECT_TRUE(eventually([&] { return manager_.findPeer("b")->isConnected(); }));
  EXPECT_EQ(manager_.findPeer("x"), nullptr);
  const auto link = node_.accept();
  link->sendPayload("[\"NOT\", \"x\", 1, 0, 0]\n{}");
  EXPECT_TRUE(eventually([&] { return bus_.payloads().size() == 1; }));
}

TEST_F(NodeConnectionPointManager, ReloadErasesWhatIsNoLongerListedAndKeepsTheOthersConnected) {
  load(list({"a", "b", "c"}));
  const auto kept = manager_.findPeer("b");
  ASSERT_TRUE(eventually([&] { return kept->isConnected(); }));
  const char* const erasing =
      "virtual int ValtorNodeConnectionPointManager::loadFromJSON(cJSON*) erasing connectionPoint";
  for (const char* const text : {"{}", "{\"connectionPoint\":[]}", "{\"connectionPoint\":{}}",
                                 "{\"connectionPoint\":{\"a\":{\"type\":\"x\"}}}"}) {
    EXPECT_EQ(load(text), 0);
    EXPECT_EQ(ids(), "a,b,c") << text;
  }
  load("{\"connectionPoint\":[" + peerText("b", 1) + "," + peerText("d", node_.port()) + "]}");
  EXPECT_EQ(ids(), "b,d");
  EXPECT_EQ(manager_.findPeer("b"), kept);
  EXPECT_TRUE(kept->isConnected());
  EXPECT_EQ(kept->port(), node_.port());
  EXPECT_FALSE(kept->isMarkedForErase());
  EXPECT_TRUE(console_.contains(std::string(erasing) + ": a\n" + erasing + ": c\n"));
  EXPECT_FALSE(console_.contains(std::string(erasing) + ": b\n"));
  load("{\"connectionPoint\":[{\"type\":\"other\"}]}");
  EXPECT_EQ(ids(), "");
}

TEST_F(NodeConnectionPointManager, RendersItsPeers) {
  EXPECT_EQ(printJSON(manager_.toJSON().get(), false),
            R"({"type":"Valtor Peer","phy":[],"connectionPoint":[]})");
  load(list({"a"}));
  ASSERT_TRUE(eventually([&] { return manager_.findPeer("a")->isConnected(); }));
  const std::string phy = R"("phy":[{"type":"tcp","ipAddress":"127.0.0.2","port":)" +
                          std::to_string(node_.port()) + R"(,"server":true}])";
  EXPECT_EQ(printJSON(manager_.toJSON().get(), false),
            R"({"type":"Valtor Peer","phy":[],"connectionPoint":[{"type":"Valtor Peer",)"
            R"("name":"Na","uniqueID":"a",)" +
                phy + R"(,"enabled":true,"connected":true}]})");
  EXPECT_EQ(printJSON(manager_.getInterfaceJSON().get(), false), "null");
}

TEST_F(NodeConnectionPointManager, SetReplacesThePeersAndSaves) {
  EXPECT_FALSE(request("SET", "{}"));
  EXPECT_FALSE(request("SET", "no JSON"));
  EXPECT_FALSE(request("SET", R"({"param":{"other":[]}})"));
  EXPECT_EQ(file(), "");
  EXPECT_TRUE(request("SET", "{\"param\":" + list({"a", "b"}) + "}"));
  EXPECT_EQ(ids(), "a,b");
  EXPECT_NE(file().find("\"DispatcherPeerManager\""), std::string::npos);
  EXPECT_NE(file().find("\"Nb\""), std::string::npos);
  EXPECT_TRUE(request("SET", R"({"param":{"DispatcherPeerManager":1}})"));
  EXPECT_EQ(ids(), "a,b");
  EXPECT_TRUE(responses_.empty());
  for (const char* const kind : {"UPDATE", "NOT", "RSP", "CMD"}) {
    EXPECT_FALSE(request(kind, "{\"param\":" + list({"c"}) + "}")) << kind;
  }
}

TEST_F(NodeConnectionPointManager, DeleteRemovesWhatTheNamesMean) {
  struct Case {
    const char* body;
    const char* left;
  };
  const Case cases[] = {
      {R"({"objectBase":"connectionPoint","objectName":["a","b"]})", "c"},
      {R"({"objectName":["connectionPoint.a","b"]})", "c"},
      {R"({"objectName":["b","connectionPoint.a"]})", "b,c"},
      {R"({"objectBase":7,"objectName":["b",1,null,"connectionPoint.c"]})", "a,b"},
      {R"({"objectBase":"connectionPoint","objectName":["x","c.c","other.a"]})", "a,b,c"},
      {R"({"objectBase":"route","objectName":["a"]})", "a,b,c"},
      {R"({"objectBase":"connectionPoint","objectName":[]})", "a,b,c"},
      {R"({"objectBase":"connectionPoint","objectName":"a"})", "a,b,c"},
      {R"({"objectBase":"connectionPoint"})", "a,b,c"},
      {R"({"objectName":["ConnectionPoint.a"]})", "a,b,c"},
      {"no JSON", "a,b,c"},
  };
  for (const Case& one : cases) {
    load(list({"a", "b", "c"}));
    const bool removes = std::string(one.left) != "a,b,c";
    EXPECT_EQ(request("DEL", one.body), removes) << one.body;
    EXPECT_EQ(ids(), one.left) << one.body;
    EXPECT_EQ(file().empty(), !removes) << one.body;
    std::remove(folder_.at("peers.json").c_str());
    load("{\"connectionPoint\":[{}]}");
  }
  EXPECT_TRUE(responses_.empty());
}

TEST_F(NodeConnectionPointManager, GetAnswersEachNameInOrder) {
  EXPECT_FALSE(request("GET", "{}"));
  EXPECT_FALSE(request("GET", R"({"objectName":["x",1,"connectionpoint"]})"));
  EXPECT_TRUE(request(
      "GET", R"({"id":"7@8.x","objectName":["connectionPointManager","x","connectionPoint"]})"));
  ASSERT_EQ(responses_.size(), 2U);
  const std::string start =
      R"({"id":"7@8.x","requestCommand":"GET","statusCode":200,"statusMsg":"OK","param":)";
  EXPECT_EQ(responses_[0]->encode(),
            "[\"RSP\", \"device\", 0, 490, 0]\n" + start +
                R"({"connectionPointManager":[{"type":"Valtor Peer","phy":[],)"
                R"("connectionPoint":[]}]}})");
  EXPECT_EQ(bodyOf(responses_[1]->encode()), start + R"({"connectionPoint":[]}})");
}

TEST(RouterPeerManager, SendsAMessageToEveryPeerWhoseFilterPassesIt) {
  const test::LogCapture log;
  const ConsoleCapture console;
  MasterBus bus;
  ScriptedNode nodes[2] = {ScriptedNode("127.0.0.2"), ScriptedNode("127.0.0.3")};
  std::unique_ptr<test::ScriptedPeer> links[2];
  ValtorRouterPeerManager manager("routers", &bus);
  for (int i = 0; i < 2; ++i) {
    auto peer =
        std::make_shared<ValtorRouterPeerConnection>(nodes[i].address(), nodes[i].port(), "bus");
    peer->setForwarder(&bus);
    peer->onMessage(received(std::string("[\"GET\", \"db\", 100, 0, 0]\n{\"id\":\"1@2.host") +
                             (i == 0 ? "A" : "B") + "\"}"));
    peer->connect();
    manager.addPeer(peer);
    links[i] = nodes[i].accept();
    links[i]->readFrame();
    links[i]->readFrame();
    ASSERT_TRUE(eventually([&] { return peer->isConnected(); }));
  }
  const std::string answer = "[\"RSP\", \"db\", 100, 10000, 0]\n{ \"id\":\"9@2.hostB\" }";
  const std::string command = "[\"CMD\", \"route\", 490, 0, 0]\n{\"take\":[1,  2]}";
  manager.forwardToPeers(received(answer));
  manager.forwardToPeers(received(command));
  EXPECT_EQ(links[1]->readFrame(), answer);
  EXPECT_EQ(links[1]->readFrame(), command);
  EXPECT_EQ(links[0]->readFrame(), command);
  EXPECT_TRUE(
      console.contains("\tmaster->peer filter blocked [\"RSP\", \"db\", 100, 10000, 0] "
                       "(rule:isDatabaseRSPForMe)\n"));
  EXPECT_TRUE(console.contains("\nmaster->peer send " + command + " \n"));

  const std::string longCommand =
      "[\"CMD\", \"route\", 490, 0, 0]\n" + std::string(200, ' ') + "{}";
  manager.forwardToPeers(received(longCommand));
  EXPECT_TRUE(console.contains("\nmaster->peer send " + longCommand.substr(0, 128) + " \n"));
}

TEST(RouterPeerManager, SlotKeepsAManagerAliveForWhoeverUsesIt) {
  EXPECT_EQ(routerPeerManager(), nullptr);
  setRouterPeerManager(std::make_shared<ValtorRouterPeerManager>("one", nullptr));
  const auto first = routerPeerManager();
  const std::weak_ptr<ValtorRouterPeerManager> second = [] {
    setRouterPeerManager(std::make_shared<ValtorRouterPeerManager>("two", nullptr));
    return routerPeerManager();
  }();
  EXPECT_FALSE(first->removePeer("a"));
  setRouterPeerManager(nullptr);
  EXPECT_TRUE(second.expired());
}

}  // namespace
}  // namespace valtor
