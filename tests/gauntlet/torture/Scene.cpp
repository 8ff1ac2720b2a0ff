#include "gauntlet/torture/Scene.h"

#include <algorithm>
#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

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
constexpr std::size_t kRouters = 2;
constexpr int kBurst = 40;  // more than a router takes at once, so that some wait
constexpr const char* kGammaAddress = "127.0.0.4";
constexpr int32_t kPanelConnID = 490;
constexpr const char* kPanelAddress = "127.0.0.5";
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

std::vector<PassedMessage> traffic(const RunningNode& node, MessageKind kind) {
  std::vector<PassedMessage> all = node.passed();
  std::erase_if(all,
                [&](const PassedMessage& one) { return one.kind != kind || one.path != "route"; });
  return all;
}

// The first that was not sent by one of these, behind what came from there before.
std::string disorder(const std::vector<PassedMessage>& arrived,
                     std::vector<std::vector<PassedMessage>> senders) {
  for (const PassedMessage& one : arrived) {
    const bool isNext = std::any_of(senders.begin(), senders.end(), [&](auto& sent) {
      const auto same = std::find_if(sent.begin(), sent.end(), [&](const PassedMessage& other) {
        return *other.payload == *one.payload;
      });
      const bool found = same != sent.end();
      sent.erase(sent.begin(), found ? same + 1 : sent.begin());
      return found;
    });
    if (!isNext) {
      return "damaged, doubled or out of order: " + one.payload->substr(0, 100);
    }
  }
  return "";
}

}  // namespace

Scene::Scene()
    : site_(kPort), gamma_(site_.start(kGammaAddress)), panels_(site_.start(kPanelAddress)) {
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
            {"traffic", [this] { return carries(kBurst); }},
            {"save", [this] { return saves(); }},
            {"save again", [this] { return saves(); }},
            {"role", [this] { return goesToStandbyAndBack(); }},
            {"move", [this] { return followsAMove(); }},
            {"status", [this] { return tellsStatus(); }}};
}

bool Scene::isUp() { return site_.becomesComplete() && site_.isServed(); }

bool Scene::hearsItsRouters() {
  const auto hears = [&](RunningNode& router) {
    const std::string body = "{ \"id\" : " + std::to_string(++number_) + "}";
    router->inject(100, "NOT", "route", 0, body);
    const auto isIt = [&](const PassedMessage& one) { return one.body() == body; };
    constexpr std::chrono::milliseconds kPatience{500};
    return eventually([&] { return site_.controller->countPassed(isIt) > 0; }, kPatience);
  };
  return eventually([&] { return hears(*site_.alpha); }) &&
         eventually([&] { return hears(*site_.beta); });
}

bool Scene::becomesDeserted() const {
  const auto all = nodes();
  return std::all_of(all.begin(), all.end(),
                     [](RunningNode* node) { return BridgeSite::becomesLeft(*node); });
}

bool Scene::carries(int count) {
  std::set<std::string, std::less<>> commands;
  std::set<std::string, std::less<>> statuses;
  const auto next = [this](auto& all) {
    return *all.insert("{ \"id\" : " + std::to_string(++number_) + "}").first;
  };
  for (int i = 0; i < count; ++i) {
    (*site_.controller)->inject(kPanelConnID, "CMD", "route", 0, next(commands));
    (*(i % 2 == 0 ? site_.alpha : site_.beta))->inject(100, "NOT", "route", 0, next(statuses));
  }
  const auto reach = [](const RunningNode& node, const auto& sent) {
    return node.countPassed([&](const PassedMessage& one) { return sent.count(one.body()) > 0; }) >=
           sent.size();
  };
  return eventually([&] {
    return reach(*site_.alpha, commands) && reach(*site_.beta, commands) &&
           reach(*site_.controller, statuses);
  });
}

std::string Scene::trafficFault() const {
  const std::vector<PassedMessage> commands = traffic(*site_.controller, MessageKind::CMD);
  std::vector<std::vector<PassedMessage>> statuses;
  for (const RunningNode* router : {site_.alpha.get(), site_.beta.get(), gamma_.get()}) {
    const std::string fault = disorder(traffic(*router, MessageKind::CMD), {commands});
    if (!fault.empty()) {
      return fault;
    }
    statuses.push_back(traffic(*router, MessageKind::NOT));
  }
  return disorder(traffic(*site_.controller, MessageKind::NOT), std::move(statuses));
}

std::size_t Scene::lostCommands() const {
  const auto count = [](const RunningNode& node) {
    return node.countPassed([](const PassedMessage& one) {
      return one.kind == MessageKind::CMD && one.source == kPanelConnID;
    });
  };
  return kRouters * count(*site_.controller) - count(*site_.alpha) - count(*site_.beta);
}

std::string Scene::ask(const std::string& kind, const std::string& body) {
  const std::string id = "{\"id\":\"torture" + std::to_string(++number_) + "\",";
  (*site_.controller)->inject(kPanelConnID, kind, "device", 0, id + body);
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
         R"(","phy":[{"type":"tcp","ipAddress":")" + kPanelAddress +
         R"(","port":15000,"server":false}]}],)"
         R"("tcpServer":[{"enabled":true,"protocol":"torture","port":)" +
         number + R"(,"connectionLimit":1,"numConnections":0}]}})";
}

bool Scene::saves() {
  const std::string body = list(site_.alphaEntry() + "," + site_.betaEntry());
  const std::string number = std::to_string(number_);
  if (ask("SET", body).empty()) {
    return false;
  }
  answered_ = std::stoi(number);
  if (!becomesHeld(statePath(), "\"port\":\t" + number + ",")) {
    return false;
  }
  saved_ = std::stoi(number);
  return becomesHeld(incomingPath(), "\"panel" + number + "\"");
}

bool Scene::savesByItself() const {
  return eventually([&] { return stateFault(answered_).empty(); }) &&
         becomesHeld(incomingPath(), "\"panel" + std::to_string(answered_) + "\"");
}

void Scene::asksToSave() {
  const std::string body = list(site_.alphaEntry() + "," + site_.betaEntry());
  (*site_.controller)
      ->inject(kPanelConnID, "SET", "device", 0, kSave + std::to_string(number_) + "\"," + body);
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
  for (RunningNode* node : nodes()) {
    node->forget();
  }
}

std::array<RunningNode*, 5> Scene::nodes() const {
  return {site_.controller.get(), site_.alpha.get(), site_.beta.get(), gamma_.get(), panels_.get()};
}

bool Scene::goesToStandbyAndBack() {
  (*site_.controller)->setRole("standby");
  const bool left = BridgeSite::becomesLeft(*site_.alpha) && BridgeSite::becomesLeft(*site_.beta);
  (*site_.controller)->setRole("active");
  return isUp() && left;
}

bool Scene::followsAMove() {
  (*site_.controller)
      ->inject(kPanelConnID, "UPDATE", "device", 0,
               "{\"id\":\"move\",\"param\":{\"connectionPoint\":[" +
                   routerEntry("beta", kGammaAddress, kPort) + "]}}");
  return BridgeSite::becomesLeft(*site_.beta) && BridgeSite::becomesLinked(*gamma_) &&
         site_.statusArrivesFrom(*gamma_);
}

bool Scene::tellsStatus() const {
  return eventually([] { return status() != nullptr; });
}

JSONPtr Scene::status() {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  paths().statusSocket.copy(name.sun_path, sizeof name.sun_path - 1);
  const UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval longest{1, 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
    return nullptr;
  }
  shutdown(socket.get(), SHUT_WR);
  std::string text;
  char bytes[4096];
  for (ssize_t count = 1; (count = recv(socket.get(), bytes, sizeof bytes, 0)) > 0;) {
    text.append(bytes, static_cast<std::size_t>(count));
  }
  return JSONPtr(cJSON_Parse(text.c_str()));
}

bool Scene::recoversByItself(bool hasDatabase) {
  return eventually([&] {
    const JSONPtr body(cJSON_Parse(ask("GET", R"("objectName":["connectionPoint"]})").c_str()));
    const cJSON* const points =
        arrayMember(cJSON_GetObjectItem(body.get(), "param"), "connectionPoint");
    bool connected = points != nullptr &&
                     (!hasDatabase || cJSON_GetArraySize(points) >= static_cast<int>(kRouters));
    const cJSON* point = nullptr;
    cJSON_ArrayForEach(point, points) {
      connected = connected && cJSON_IsTrue(cJSON_GetObjectItem(point, "connected")) != 0;
    }
    return connected;
  });
}

bool Scene::isGoodAgain(bool tellsItsStatus) {
  (*site_.controller)->setRole("active");
  return eventually([&] { return saves(); }) && isUp() && hearsItsRouters() && carries(kBurst) &&
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
