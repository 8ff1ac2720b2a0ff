#include "gauntlet/torture/Scene.h"

#include <algorithm>
#include <sys/socket.h>
#include <sys/un.h>

#include "app/util/OwnedJSON.h"
#include "app/util/UniqueDescriptor.h"
#include "support/TemporaryFolder.h"

namespace valtor::gauntlet {

namespace {

using test::BridgeSite;
using test::eventually;
using test::fileContent;
using test::routerEntry;

constexpr uint16_t kPort = 15000;
constexpr int kServerMembers = 6;  // of one that is described in the state file
constexpr int kRouters = 2;
constexpr int kBurst = 40;
constexpr const char* kGammaAddress = "127.0.0.4";
const std::string kSave = "{\"id\":\"save";

std::string incomingPath() {
  return paths().incomingClientDirectory + "valtorIncomingClientConnections.json";
}

// Whether a file comes to hold the text, and is JSON then.
bool becomesHeld(const std::string& path, const std::string& text) {
  return eventually([&] {
    const std::string content = fileContent(path);
    return content.find(text) != std::string::npos &&
           JSONPtr(cJSON_Parse(content.c_str())) != nullptr;
  });
}

}  // namespace

Scene::Scene() : site_(kPort), gamma_(site_.start(kGammaAddress)) {
  namespace fs = std::filesystem;
  const fs::path root =
      paths().statusSocket.substr(0, paths().statusSocket.rfind("/run/valtor-remote"));
  fs::create_directories(root);
  for (const auto& entry : fs::directory_iterator(root)) {
    fs::remove_all(entry);
  }
  for (const fs::path path :
       {paths().containerDirectory, paths().hostAddressFile,
        paths().incomingClientDirectory.substr(0, paths().incomingClientDirectory.size() - 1)}) {
    fs::create_directories(path.parent_path());
  }
  std::ofstream(paths().hostAddressFile) << "00:11:a2:b3:c4:d5\n";
  test::writeActiveDatabase(site_.alphaEntry() + "," + site_.betaEntry());
  steps_ = {{"start", [this] { return isUp(); }},
            {"traffic", [this] { return carriesBothWays(); }},
            {"save", [this] { return saves(); }},
            {"save again", [this] { return saves(); }},
            {"role", [this] { return goesToStandbyAndBack(); }},
            {"move", [this] { return followsAMove(); }},
            {"status", [this] { return tellsStatus(); }}};
}

bool Scene::isUp() { return site_.becomesComplete() && site_.isServed(); }

bool Scene::carriesBothWays() {
  // More than a router takes in that time, so that some wait.
  for (int i = 0; i < kBurst; ++i) {
    (*site_.controller)
        ->inject(490, "CMD", "route", 0, "{\"id\":" + std::to_string(++number_) + "}");
  }
  return site_.commandReaches(*site_.alpha) && site_.commandReaches(*site_.beta) &&
         site_.statusArrivesFrom(*site_.alpha) && site_.statusArrivesFrom(*site_.beta);
}

std::string Scene::ask(const std::string& kind, const std::string& body) {
  const std::string id = "{\"id\":\"torture" + std::to_string(++number_) + "\",";
  (*site_.controller)->inject(490, kind, "device", 0, id + body);
  std::string answer;
  // Whoever asks in vain asks again.
  constexpr std::chrono::milliseconds kPatience{2000};
  const auto isThere = [&] {
    for (const PassedMessage& one : site_.controller->passed()) {
      if (one.source == 101 && one.body().rfind(id, 0) == 0) {
        answer = one.body();
      }
    }
    return !answer.empty();
  };
  eventually(isThere, std::min(kPatience, test::longestWait));
  return answer;
}

// A client that connected, new each time, makes the list of those be written; the port of a server
// tells one state from the next.
std::string Scene::list(const std::string& entries) {
  const std::string number = std::to_string(++number_);
  return R"("param":{"connectionPoint":[)" + entries +
         R"(,{"type":"valtor","name":"panel","uniqueID":"panel)" + number +
         R"(","phy":[{"type":"tcp","ipAddress":"127.0.0.4","port":15000,"server":false}]}],)"
         R"("tcpServer":[{"enabled":true,"protocol":"torture","port":)" +
         number + R"(,"connectionLimit":1,"numConnections":0}]}})";
}

bool Scene::saves() {
  const std::string body = list(site_.alphaEntry() + "," + site_.betaEntry());
  const std::string number = std::to_string(number_);
  if (ask("SET", body).empty() || !becomesHeld(statePath(), "\"port\":\t" + number + ",")) {
    return false;
  }
  saved_ = std::stoi(number);
  return becomesHeld(incomingPath(), "\"panel" + number + "\"");
}

void Scene::asksToSave() {
  const std::string body = list(site_.alphaEntry() + "," + site_.betaEntry());
  (*site_.controller)
      ->inject(490, "SET", "device", 0, kSave + std::to_string(number_) + "\"," + body);
}

int Scene::savedState() const {
  int state = saved_;
  for (const PassedMessage& one : site_.controller->passed()) {
    const std::string body(one.body());
    if (one.source == 101 && body.rfind(kSave, 0) == 0) {
      state = std::max(state, std::stoi(body.substr(kSave.size())));
    }
  }
  return state;
}

void Scene::forget() {
  for (RunningNode* node :
       {site_.controller.get(), site_.alpha.get(), site_.beta.get(), gamma_.get()}) {
    node->forget();
  }
}

bool Scene::goesToStandbyAndBack() {
  (*site_.controller)->setRole("standby");
  const bool left = BridgeSite::becomesLeft(*site_.alpha) && BridgeSite::becomesLeft(*site_.beta);
  (*site_.controller)->setRole("active");
  return isUp() && left;
}

bool Scene::followsAMove() {
  (*site_.controller)
      ->inject(490, "UPDATE", "device", 0,
               "{\"id\":\"move\",\"param\":{\"connectionPoint\":[" +
                   routerEntry("beta", kGammaAddress, kPort) + "]}}");
  return BridgeSite::becomesLeft(*site_.beta) && BridgeSite::becomesLinked(*gamma_) &&
         site_.statusArrivesFrom(*gamma_);
}

bool Scene::tellsStatus() const {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  paths().statusSocket.copy(name.sun_path, sizeof name.sun_path - 1);
  return eventually([&] {
    const UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval longest{1, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
      return false;
    }
    shutdown(socket.get(), SHUT_WR);
    std::string text;
    char bytes[4096];
    for (ssize_t count = 1; (count = recv(socket.get(), bytes, sizeof bytes, 0)) > 0;) {
      text.append(bytes, static_cast<std::size_t>(count));
    }
    return JSONPtr(cJSON_Parse(text.c_str())) != nullptr;
  });
}

bool Scene::recoversByItself(bool hasDatabase) {
  return eventually([&] {
    const JSONPtr body(cJSON_Parse(ask("GET", R"("objectName":["connectionPoint"]})").c_str()));
    const cJSON* const points =
        arrayMember(cJSON_GetObjectItem(body.get(), "param"), "connectionPoint");
    bool connected = points != nullptr && (!hasDatabase || cJSON_GetArraySize(points) >= kRouters);
    const cJSON* point = nullptr;
    cJSON_ArrayForEach(point, points) {
      connected = connected && cJSON_IsTrue(cJSON_GetObjectItem(point, "connected")) != 0;
    }
    return connected;
  });
}

bool Scene::isGoodAgain(bool tellsItsStatus) {
  (*site_.controller)->setRole("active");
  return eventually([&] { return saves(); }) && isUp() && carriesBothWays() &&
         (!tellsItsStatus || tellsStatus());
}

std::string Scene::statePath() {
  return paths().containerDirectory + "/valtorConnectionPointMgr.json";
}

bool Scene::isStateHalfWay() {
  using std::filesystem::exists;
  return !exists(statePath()) || exists(statePath() + ".new") || exists(statePath() + ".old");
}

std::string Scene::stateFault(int leastState) {
  for (const std::string& path : {statePath(), statePath() + ".old"}) {
    if (std::filesystem::exists(path)) {
      const std::string content = fileContent(path);
      const JSONPtr document(cJSON_Parse(content.c_str()));
      const cJSON* const manager = cJSON_GetObjectItem(document.get(), "connectionPointManager");
      const cJSON* const servers = arrayMember(manager, "tcpServer");
      const bool whole = stringMember(manager, "type") != nullptr &&
                         arrayMember(manager, "phy") != nullptr && servers != nullptr &&
                         cJSON_GetArraySize(servers->child) == kServerMembers;
      if (!whole) {
        return path + " is not whole: " + content;
      }
      const double state = cJSON_GetNumberValue(cJSON_GetObjectItem(servers->child, "port"));
      return state >= leastState ? "" : path + " is of an earlier state";
    }
  }
  return leastState > 0 ? "no state file is left" : "";
}

}  // namespace valtor::gauntlet
