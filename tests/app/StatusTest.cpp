#include <array>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "app/Daemon.h"
#include "app/SingleInstance.h"
#include "app/StatusServer.h"
#include "app/util/OwnedJSON.h"
#include "app/util/StatusLimits.h"
#include "bus/BusSupport.h"
#include "peers/BridgeWatch.h"
#include "peers/Crossings.h"
#include "peers/LoopWatch.h"
#include "support/BridgeSite.h"
#include "support/LogCapture.h"
#include "support/Sanitized.h"
#include "support/TemporaryFolder.h"
#include "support/Vocabulary.h"

namespace valtor::test {
namespace {

using namespace std::chrono_literals;

UniqueDescriptor connectTo(const std::string& path) {
  UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  EXPECT_EQ(connect(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  return socket;
}

// What comes until the line feed, or the end.
std::string readLine(const UniqueDescriptor& socket) {
  std::string line;
  char byte = 0;
  while (recv(socket.get(), &byte, 1, 0) == 1 && byte != '\n') {
    line += byte;
  }
  return line;
}

std::string ask(const std::string& path, const std::string& request = "\n") {
  const UniqueDescriptor socket = connectTo(path);
  send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL);
  return readLine(socket);
}

class StatusTest : public testing::Test {
 protected:
  StatusTest() {
    folder.becomePathPrefix();
    writeActiveDatabase(site.alphaEntry() + "," +
                        routerEntry("off", "127.0.0.9", 15000, R"(,"enabled":false)"));
    path = paths().statusSocket;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const UniqueDescriptor stale(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    EXPECT_EQ(bind(stale.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    daemon = std::make_unique<Daemon>(false, "127.0.0.1", site.controller->port());
    daemon->setReconnectDelay(10ms);
    daemon->start();
  }

  JSONPtr status() const { return JSONPtr(cJSON_Parse(ask(path).c_str())); }
  // A member of the router at that place, as text.
  static std::string member(const JSONPtr& document, int router, const char* name) {
    return printJSON(
        cJSON_GetObjectItem(
            cJSON_GetArrayItem(cJSON_GetObjectItem(document.get(), "routers"), router), name),
        false);
  }
  bool becomes(int router, const char* name, const std::string& text) const {
    return eventually([&] { return member(status(), router, name) == text; });
  }

  LogCapture log;
  TemporaryFolder folder;
  BridgeSite site;
  std::string path;
  std::unique_ptr<Daemon> daemon;
};

TEST_F(StatusTest, ShowsEveryRouterItsTrafficItsRulesAndWhyItWasLost) {
  struct stat mode {};
  ASSERT_EQ(stat(path.c_str(), &mode), 0);
  EXPECT_EQ(mode.st_mode & 0777U, 0660U);
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  ASSERT_TRUE(becomes(0, "state", "\"up\""));
  EXPECT_EQ(member(status(), 1, "state"), "\"disabled\"");
  const std::string crossing = "[\"NOT\", \"tally\", 490, 0, 0]\n{\"id\":\"1@x\"}";
  ASSERT_TRUE(BridgeSite::crosses(*site.controller, *site.alpha, crossing));
  (*site.controller)->injectPayload("[\"NOT\", \"device\", 490, 0, 0]\n{}");
  ASSERT_TRUE(eventually([&] {
    return member(status(), 0, "toRouter").find("\"isConnectionPointConfig\":1") !=
           std::string::npos;
  }));
  (*site.alpha)->injectPayload("[\"NOT\", \"route\", 7, 0, 0]\n{}");
  ASSERT_TRUE(eventually([&] {
    return member(status(), 0, "fromRouter").find("\"reqIDSupported\":1") != std::string::npos;
  }));
  const std::string all = ask(path);
  EXPECT_NE(all.find(R"("direction":"toRouters","kind":"NOT","path":"tally")"), std::string::npos)
      << all;
  const std::string place = " (alpha) at 127.0.0.2:" + std::to_string(site.alpha->port());
  site.alpha.reset();
  ASSERT_TRUE(becomes(0, "lost", "1"));
  EXPECT_NE(member(status(), 0, "lastLoss").find("\"reason\":\"hung up\""), std::string::npos);
  EXPECT_EQ(log.count(LOG_NOTICE, "Router alpha" + place + " is connected.\n"), 1);
  EXPECT_EQ(log.count(LOG_NOTICE, "Router alpha" + place + " is disconnected: hung up.\n"), 1);
}

TEST_F(StatusTest, AFollowerSeesOneRoutersMessagesBlockedOnesWithTheirRule) {
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  EXPECT_EQ(ask(path, "follow nobody\n"), R"({"error":"no such router"})");
  std::array<UniqueDescriptor, kMostFollowers> sockets;
  for (UniqueDescriptor& socket : sockets) {
    socket = connectTo(path);
    send(socket.get(), "follow alpha\n", 13, MSG_NOSIGNAL);
  }
  EXPECT_EQ(ask(path, "follow alpha\n"), R"({"error":"too many follow already"})");
  std::atomic<bool> seen{false};
  std::thread source([&] {  // until the follower is there
    eventually([&] {
      (*site.controller)
          ->injectPayload("[\"NOT\", \"device\", 490, 0, 0]\n{\"pad\":\"" + std::string(2000, 'x') +
                          "\"}");
      return seen.load();
    });
  });
  std::string got;
  do {
    got = readLine(sockets.back());  // the answers to the link-up's requests may come first
  } while (!got.empty() && got.find("\"rule\"") == std::string::npos);
  seen = true;
  source.join();
  EXPECT_NE(got.find(R"("direction":"toRouter","kind":"NOT","path":"device","source":490)"),
            std::string::npos)
      << got;
  EXPECT_NE(got.find(R"("passed":false,"rule":"isConnectionPointConfig")"), std::string::npos);
  const JSONPtr object(cJSON_Parse(got.c_str()));
  EXPECT_EQ(strlen(stringMember(object.get(), "body")), TrafficTap::kShownBody);
}

TEST_F(StatusTest, AFollowerThatWasSlowIsToldWhatItMissedAndGoesOn) {
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  const UniqueDescriptor socket = connectTo(path);
  send(socket.get(), "follow alpha\n", 13, MSG_NOSIGNAL);
  const auto inject = [&](const std::string& name, int count) {
    for (int i = 0; i < count; ++i) {
      (*site.controller)
          ->injectPayload("[\"NOT\", \"device\", 490, 0, 0]\n{\"name\":\"" + name +
                          "\",\"pad\":\"" + std::string(2000, 'x') + "\"}");
    }
  };
  const auto blocked = [&] { return member(status(), 0, "toRouter"); };
  char byte = 0;
  do {
    inject("early", 1);
  } while (recv(socket.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 1);
  inject("many", 3000);  // more than socket and ring hold
  ASSERT_TRUE(eventually(
      [&] { return blocked().find("\"isConnectionPointConfig\":3") != std::string::npos; }));
  bool missed = false;
  inject("last", 1);
  for (std::string line = readLine(socket); line.find("\"last") == std::string::npos;
       line = readLine(socket)) {
    ASSERT_FALSE(line.empty());
    missed = missed || line.find("{\"missed\":") == 0;
  }
  EXPECT_TRUE(missed);
}

TEST_F(StatusTest, WhoDoesNotReadKeepsNobodyWaiting) {
  std::vector<UniqueDescriptor> silent;
  for (int i = 0; i < 100; ++i) {  // more than are served at once
    silent.push_back(connectTo(path));
  }
  EXPECT_NE(ask(path).find("\"routers\""), std::string::npos);
  for (const UniqueDescriptor& socket : silent) {
    EXPECT_NE(readLine(socket).find("\"routers\""), std::string::npos);
  }
}

TEST(StatusServer, WhereItCannotListenItSaysSo) {
  const LogCapture log;
  const TemporaryFolder folder;
  const std::string file = folder.path() + "/file";
  std::ofstream(file) << "x";
  const StatusServer server(file + "/status", {});
  EXPECT_FALSE(server.isServing());
  EXPECT_EQ(log.countContaining("Nobody can ask for the status at " + file + "/status: "), 1);
}

TEST(SingleInstance, OneHoldsTheNameAtATime) {
  const std::string name = "valtor-test-" + std::to_string(getpid());
  SingleInstance second(name);
  {
    SingleInstance first(name);
    ASSERT_TRUE(first.acquire());
    for (int i = 0; i < 5; ++i) {  // whoever restarts it does not give up
      EXPECT_FALSE(second.acquire());
    }
  }
  EXPECT_TRUE(second.acquire());
}

// A daemon that is killed while it starts a command has shared its descriptors with that.
TEST(SingleInstance, WhatAKilledOneLeftBehindDoesNotHoldTheName) {
  const std::string name = "valtor-test-" + std::to_string(getpid());
  int wayDown[2];
  ASSERT_EQ(pipe2(wayDown, O_CLOEXEC), 0);
  const pid_t killed = fork();
  if (killed == 0) {
    SingleInstance first(name);
    if (first.acquire() && fork() == 0) {
      close(wayDown[1]);
      char byte = 0;
      _exit(read(wayDown[0], &byte, 1) == 0 ? 0 : 1);
    }
    _exit(0);
  }
  ASSERT_EQ(waitpid(killed, nullptr, 0), killed);
  close(wayDown[0]);
  const LogCapture log;
  SingleInstance next(name);
  EXPECT_TRUE(next.acquire()) << "without the name";
  EXPECT_EQ(log.countContaining("another daemon runs cannot be told: No such process"), 1);
  close(wayDown[1]);  // what was left behind ends
  EXPECT_TRUE(eventually([&] { return next.acquire(), !SingleInstance(name).acquire(); }));
}

TEST(LoopWatch, WarnsOnceAnEpisodeOfTheSameMessageAndOfNoOther) {
  const LogCapture log;
  LoopWatch loops;
  const auto received = [](int id, int source) {
    PellInternalMessage message =
        test::received("[\"NOT\", \"tally\", " + std::to_string(source) + ", 0, 0]\n{\"id\":\"" +
                       std::to_string(id) + "@x\"}");
    return message;
  };
  auto now = LoopWatch::Clock::now();
  const auto cross = [&](const PellInternalMessage& message, int times, const void* router) {
    for (int i = 0; i < times; ++i) {
      loops.note(
          message, router, [] { return std::string("Router beta"); }, now);
    }
  };
  for (int id = 0; id < 100; ++id) {
    cross(received(id, 100), 1, nullptr);  // different messages
  }
  cross(test::received("[\"NOT\", \"tally\", 2, 0, 0]\n{}"), 100, nullptr);  // no identifier
  cross(received(200, 100), 10, nullptr);
  EXPECT_EQ(loops.figures().episodes, 0U);
  now += 11s;
  cross(received(200, 100), 10, &loops);  // as often, but not within the window, and another way
  EXPECT_EQ(loops.figures().episodes, 0U);
  cross(received(200, 490), 30, &loops);
  cross(received(201, 490), 30, &loops);  // of the same episode
  EXPECT_EQ(loops.figures().episodes, 1U);
  EXPECT_EQ(
      log.countContaining("NOT on \"tally\", id \"200@x\", has come from Router beta and gone "
                          "to the controller"),
      1);
  now += 11s;
  cross(received(202, 490), 11, nullptr);
  EXPECT_EQ(loops.figures().episodes, 2U);
  EXPECT_EQ(loops.figures().last->from, "the controller");
}

TEST_F(StatusTest, ALongPathIsShownByItsBeginning) {
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  const std::size_t before = ask(path).size();
  const std::string begin = "long" + std::string(250, 'p');
  for (const char* const rest : {"\u00e9", "xy"}) {  // half a character would be no JSON
    const std::string payload =
        "[\"NOT\", \"" + begin + rest + std::string(60'000, 'q') + "\", 490, 0, 0]\n{}";
    (*site.controller)
        ->writeRaw(Daemon::kClientName, std::to_string(payload.size()) + ":" + payload + ";");
  }
  ASSERT_TRUE(eventually([&] { return ask(path).find(begin + "x\"") != std::string::npos; }));
  EXPECT_NE(ask(path).find(begin + "\""), std::string::npos);
  EXPECT_LT(ask(path).size(), before + 2000);
}

TEST(JustWatch, AFailureOfItsOwnCostsNoAnswer) {
  if (!kSanitized) {  // they end the process
    justWatch([] { cJSON_malloc(SIZE_MAX); });
    EXPECT_FALSE(takeJSONFailure());
    cJSON_malloc(SIZE_MAX);
    justWatch([] {});
    EXPECT_TRUE(takeJSONFailure());
  }
}

TEST(Crossings, PairsBeyondTheLimitCountTogether) {
  Crossings crossings;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 70; ++i) {
      crossings.add(Direction::ToRouters, MessageKind::NOT, "p" + std::to_string(i), 10);
    }
  }
  const auto all = crossings.figures();
  ASSERT_EQ(all.size(), Crossings::kPairs + 1);
  EXPECT_EQ(all.front().traffic.messages, 2U);
  EXPECT_EQ(all.back().kind, MessageKind::Unknown);
  EXPECT_EQ(all.back().traffic.messages, 12U);
  EXPECT_EQ(all.back().traffic.bytes, 120U);
}

}  // namespace
}  // namespace valtor::test
