#include "load/Bridge.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>

#include "app/util/Paths.h"

namespace valtor::bench {

namespace {

constexpr std::chrono::seconds kStartLimit{120};

std::string executable = VALTOR_REMOTE_EXECUTABLE;
std::string root = VALTOR_BENCH_ROOT;

void writeDatabase(const std::string& entries) {
  namespace fs = std::filesystem;
  if (root.empty()) {
    throw std::runtime_error("this build's daemon would use the fixed paths of the machine");
  }
  fs::remove_all(root);
  for (const fs::path path : {paths().containerDirectory, paths().hostAddressFile}) {
    fs::create_directories(path.parent_path());
  }
  fs::create_directories(paths().databaseDirectory + "bench");
  std::ofstream(paths().hostAddressFile) << "00:11:a2:b3:c4:d5\n";
  std::ofstream(paths().databaseDirectory + "activeDatabase.json") << "bench\n";
  std::ofstream(paths().databaseDirectory + "bench/connectionPoints.json")
      << "{\"connectionPoint\":[" << entries << "]}";
}

// The value of the first "id" of a body.
std::string idOf(std::string_view payload) {
  constexpr std::string_view kMember = "\"id\":\"";
  const std::size_t start = payload.find(kMember);
  if (start == std::string_view::npos) {
    return {};
  }
  const std::size_t begin = start + kMember.size();
  return std::string(payload.substr(begin, payload.find('"', begin) - begin));
}

}  // namespace

std::string Bridge::entry(const std::string& id, const std::string& address, bool enabled) {
  return R"({"type":"valtor","name":")" + id + R"(","uniqueID":")" + id +
         R"(","phy":[{"type":"tcp","ipAddress":")" + address + R"(","port":)" +
         std::to_string(kBusPort) + R"(,"server":true}],"enabled":)" +
         (enabled ? "true}" : "false}");
}

std::string Bridge::disabledEntries(int count, const std::string& idPrefix) {
  std::string entries;
  for (int i = 0; i < count; ++i) {
    const std::string address =
        "127.1." + std::to_string(i / 250) + "." + std::to_string(1 + i % 250);
    entries += (i > 0 ? "," : "") + entry(idPrefix + std::to_string(i), address, false);
  }
  return entries;
}

void Bridge::useBuild(const std::string& folder) {
  executable = folder + "/src/app/valtor-remote";
  root = folder + "/root";
  setPathPrefix(root);
}

Bridge::Bridge(EventLoop& loop, int routers, int disabled, uint16_t nodePort)
    : controller(loop, "127.0.0.1", nodePort), loop_(loop) {
  std::string entries;
  for (int i = 0; i < routers; ++i) {
    routers_.push_back(std::make_unique<Node>(loop, routerAddress(i), nodePort));
    entries += (i > 0 ? "," : "") + entry(routerId(i), routerAddress(i), true);
  }
  if (disabled > 0) {
    entries += (routers > 0 ? "," : "") + disabledEntries(disabled, "off-");
  }
  writeDatabase(entries);
  controller.onMessage = [this](std::string_view payload) { receive(payload); };

  const int64_t start = nowNs();
  daemon = std::make_unique<Process>(std::vector<std::string>{executable});
  bool asked = false;
  const bool up = loop.runUntil(
      [&] {
        if (!asked && controller.isReady()) {
          asked = true;
          askForConnectionPoints();
        }
        const double now = static_cast<double>(nowNs() - start) / 1e9;
        if (secondsToAnswer_ == 0 && answerTimes_.count() > 0) {
          secondsToAnswer_ = now;
        }
        if (secondsToLinks_ == 0 && std::all_of(routers_.begin(), routers_.end(),
                                                [](const auto& one) { return one->isReady(); })) {
          secondsToLinks_ = now;
        }
        return secondsToAnswer_ > 0 && secondsToLinks_ > 0;
      },
      kStartLimit);
  if (!up) {
    throw std::runtime_error("the daemon does not come up");
  }
  answerTimes_ = Samples();
}

std::vector<Node*> Bridge::routers() const {
  std::vector<Node*> nodes;
  for (const auto& one : routers_) {
    nodes.push_back(one.get());
  }
  return nodes;
}

void Bridge::ask(const std::string& kind, const std::string& members) {
  const std::string id = "ask-" + std::to_string(++questions_);
  asked_[id] = nowNs();
  controller.sendPayload("[\"" + kind + "\", \"device\", 490, 0, 0]\n{\"id\":\"" + id + "\"," +
                         members + "}");
}

bool Bridge::allAnswered(std::chrono::seconds limit) {
  return loop_.runUntil([this] { return asked_.empty(); }, limit);
}

void Bridge::announceRole(const std::string& role) {
  controller.sendPayload(
      "[\"SET\", \"system\", 1, 0, 0]\n{\"id\":\"1@node\",\"param\":{\"mdxMasterState\":\"" + role +
      "\"}}");
}

JSONPtr Bridge::status() {
  const UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{10, 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  paths().statusSocket.copy(name.sun_path, sizeof name.sun_path - 1);
  if (connect(socket.get(), reinterpret_cast<sockaddr*>(&name), sizeof name) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot ask for the status");
  }
  shutdown(socket.get(), SHUT_WR);  // no request comes: it need not wait for one
  std::string text;
  char piece[16 * 1024];
  for (ssize_t count = 1; count > 0;) {
    count = recv(socket.get(), piece, sizeof piece, 0);
    text.append(piece, count > 0 ? static_cast<std::size_t>(count) : 0);
  }
  JSONPtr document(cJSON_Parse(text.c_str()));
  if (document == nullptr) {
    throw std::runtime_error("no whole status: " + text.substr(0, 100));
  }
  return document;
}

double Bridge::figure(std::initializer_list<const char*> path) {
  const JSONPtr document = status();
  const cJSON* item = document.get();
  for (const char* member : path) {
    item = cJSON_GetObjectItem(item, member);
  }
  if (cJSON_IsNumber(item) == 0) {
    throw std::runtime_error(std::string("the status has no number ") +
                             std::data(path)[path.size() - 1]);
  }
  return item->valuedouble;
}

void Bridge::receive(std::string_view payload) {
  constexpr std::string_view kAnswer = "[\"RSP\", \"device\", 101, ";
  if (payload.substr(0, kAnswer.size()) != kAnswer) {
    return;
  }
  const auto found = asked_.find(idOf(payload));
  if (found != asked_.end()) {
    answerTimes_.add(static_cast<double>(nowNs() - found->second) / 1e9);
    asked_.erase(found);
  }
}

}  // namespace valtor::bench
