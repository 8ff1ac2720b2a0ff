#include "peers/RemoteRouters.h"

namespace valtor::test {
namespace {

// A manager with its file in a folder of its own, whose peers have single letters as identifiers.
class NodeConnectionPointManager : public PeerTest {
 protected:
  // Peers of which only the last phy leads to the node, among what is no peer.
  std::string list(const std::string& ids) const {
    std::string text = R"({"connectionPoint":[{"type":"other"},7,{"type":"Valtor Peer"})";
    for (const char id : ids) {
      text += std::string(R"(,{"type":"Valtor Peer","name":"N","uniqueID":")") + id +
              R"(","phy":[{"type":"serial","port":"/dev/a"},{"type":"tcp","port":1},)" +
              phyText(node_) + "]}";
    }
    return text + "]}";
  }
  void load(const std::string& text) { EXPECT_EQ(manager_.loadFromJSON(parseJSON(text).get()), 0); }
  std::string ids() const {
    std::string text;
    for (const auto& peer : manager_.peers()) {
      text += peer->uniqueID();
    }
    return text;
  }
  bool handle(const std::string& kind, const std::string& body) {
    return manager_.handleMessage(request(kind, body), responses_);
  }
  std::string file() const { return fileContent(folder_.at("peers.json")); }

  ValtorNodeConnectionPointManager manager_{folder_.at("peers"), &bus_};
  ResponseList responses_;
};

TEST_F(NodeConnectionPointManager, PeersThatDoNotLoadSayWhatIsMissing) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"type":7,"phy":[{"type":"tcp"}],"name":"n","uniqueID":"u"})", "type not specified"},
      {R"({"type":"t","name":"n","uniqueID":"u"})", "phy not specified"},
      {R"({"type":"t","phy":{"a":{"type":"tcp"}}})", "no valid phy found"},
      {R"({"type":"t","phy":[{"type":"serial"}]})", "no valid phy found"},
      {R"({"type":"t","phy":[{"type":"tcp"}],"name":[],"uniqueID":"u"})", "name not specified"},
      {R"({"type":"t","phy":[{"type":"tcp"}],"name":"n"})", "uniqueID not specified"},
  };
  for (const auto& [text, reason] : cases) {
    log_.clear();
    EXPECT_EQ(manager_.createPeer(parseJSON(text).get()), nullptr) << text;
    const std::string line = std::string("DispatcherPeerClient::loadFromJSON - ") + reason + ".\n";
    EXPECT_EQ(log_.count(LOG_WARNING, line), 1) << text;
  }
}

TEST_F(NodeConnectionPointManager, BridgesWhatTheFilterPassesAsItWasReceived) {
  load(list("a"));
  const auto link = node_.accept();
  const std::string status = "[\"NOT\", \"route\", 490, 0, 0]\n{ \"stat\": 12345678901234567890 }";
  link->sendPayload("[\"CMD\", \"route\", 490, 0, 0]\n{}");
  link->sendPayload(status);
  EXPECT_TRUE(eventually([&] { return bus_.payloads() == Payloads{status}; }));
}

TEST_F(NodeConnectionPointManager, ReloadErasesWhatIsNoLongerListedAndKeepsTheOthersConnected) {
  const ConsoleCapture console;
  load(list("abc"));
  const auto kept = manager_.findPeer("b");
  ASSERT_TRUE(eventually([&] { return kept->isConnected(); }));
  for (const char* const text : {"{}", R"({"connectionPoint":[]})", R"({"connectionPoint":{}})"}) {
    load(text);
    EXPECT_EQ(ids(), "abc") << text;
  }
  load(list("bd"));
  EXPECT_EQ(ids(), "bd");
  EXPECT_EQ(manager_.findPeer("b"), kept);
  EXPECT_TRUE(kept->isConnected());
  EXPECT_TRUE(console.contains("::loadFromJSON(cJSON*) erasing connectionPoint: a\n"));
}

TEST_F(NodeConnectionPointManager, SetReplacesThePeersAndSaves) {
  EXPECT_FALSE(handle("SET", R"({"param":{"other":[]}})"));
  EXPECT_FALSE(handle("UPDATE", "{\"param\":" + list("c") + "}"));
  EXPECT_EQ(file(), "");
  EXPECT_TRUE(handle("SET", "{\"param\":" + list("ab") + "}"));
  EXPECT_EQ(ids(), "ab");
  EXPECT_NE(file().find("\"DispatcherPeerManager\""), std::string::npos);
}

TEST_F(NodeConnectionPointManager, DeleteRemovesWhatTheNamesMean) {
  const std::pair<const char*, std::string> cases[] = {
      {R"({"objectBase":"route","objectName":["a"]})", "abc"},
      {R"({"objectBase":"connectionPoint","objectName":["x","other.a"]})", "abc"},
      {R"({"objectBase":"connectionPoint","objectName":["a","b"]})", "c"},
      {R"({"objectName":["b","connectionPoint.a","c"]})", "b"},
      {R"({"objectBase":7,"objectName":["b",1,null,"connectionPoint.c"]})", "ab"},
  };
  for (const auto& [body, left] : cases) {
    load(list("abc"));
    EXPECT_EQ(handle("DEL", body), left != "abc") << body;
    EXPECT_EQ(ids(), left) << body;
    EXPECT_EQ(file().empty(), left == "abc") << body;
    load(list(""));
  }
}

TEST_F(NodeConnectionPointManager, GetAnswersEachNameInOrder) {
  EXPECT_FALSE(handle("GET", R"({"objectName":["x",1,"connectionpoint"]})"));
  load(list("a"));
  ASSERT_TRUE(eventually([&] { return manager_.findPeer("a")->isConnected(); }));
  EXPECT_TRUE(handle(
      "GET", R"({"id":"7@8.x","objectName":["connectionPointManager","x","connectionPoint"]})"));
  ASSERT_EQ(responses_.size(), 2U);
  const std::string peers =
      R"("connectionPoint":[{"type":"Valtor Peer","name":"N","uniqueID":"a","phy":[)"
      R"({"type":"tcp","ipAddress":"","port":1,"server":false},)" +
      phyText(node_) + R"(],"enabled":true,"connected":true}])";
  const std::string start =
      "[\"RSP\", \"device\", 0, 490, 0]\n"
      R"({"id":"7@8.x","requestCommand":"GET","statusCode":200,"statusMsg":"OK","param":{)";
  EXPECT_EQ(
      responses_[0]->encode(),
      start + R"("connectionPointManager":[{"type":"Valtor Peer","phy":[],)" + peers + "}]}}");
  EXPECT_EQ(responses_[1]->encode(), start + peers + "}}");
}

}  // namespace
}  // namespace valtor::test
