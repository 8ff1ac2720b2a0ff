#include <algorithm>
#include <cstring>
#include <poll.h>
#include <regex>
#include <sys/socket.h>
#include <sys/un.h>

#include "app/util/Mutex.h"
#include "support/Vocabulary.h"
#include "tools/valtor-bus/ToolFixture.h"

namespace valtor::test {
namespace {

// Says the same to everybody who connects, as the daemon does on its status socket, and hears what
// they send first.
class StatusSocket {
 public:
  explicit StatusSocket(const std::string& path)
      : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, path.c_str(), sizeof name.sun_path - 1);
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  }
  ~StatusSocket() { stop(); }

  void start() {
    listen(listener_.get(), 8);
    thread_ = std::thread([this] {
      while (!stopped_) {
        pollfd entry{listener_.get(), POLLIN, 0};
        if (poll(&entry, 1, 20) > 0) {
          const UniqueDescriptor asker(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
          pollfd question{asker.get(), POLLIN, 0};
          char bytes[100];
          const ssize_t count = poll(&question, 1, 1000) > 0
                                    ? recv(asker.get(), bytes, sizeof bytes, MSG_DONTWAIT)
                                    : 0;
          ++asked_;
          const Locked<Mutex> lock(lock_);
          heard_.assign(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
          send(asker.get(), text_.data(), text_.size(), MSG_NOSIGNAL);
        }
      }
    });
  }
  void stop() {
    stopped_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  // Tells every asker this from now on.
  void say(const std::string& text) {
    const Locked<Mutex> lock(lock_);
    text_ = text;
  }

  // What the last asker sent.
  std::string heard() {
    const Locked<Mutex> lock(lock_);
    return heard_;
  }
  int asked() const { return asked_; }

 private:
  Mutex lock_;
  std::string heard_ VALTOR_GUARDED_BY(lock_);
  std::atomic<int> asked_{0};
  std::string text_ VALTOR_GUARDED_BY(lock_);
  UniqueDescriptor listener_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

class StatusTest : public ToolFixture {
 protected:
  // A run of the tool that asks at the socket.
  std::unique_ptr<ChildProcess> status(Texts arguments) {
    arguments.insert(arguments.begin(), {"status", "--socket", folder.at("status")});
    return start(arguments);
  }
  std::string document(const std::string& more) const {
    return R"({"now":1000000000,"controller":{"port":)" + std::to_string(node.port()) + "}," +
           more + "}";
  }

  TemporaryFolder folder;
};

// A router of the document: north, connected for an hour unless it says otherwise.
std::string router(const std::string& more) {
  return R"("role":{"state":"active"},"routers":[{"name":"no|rth","uniqueID":"r","address":)"
         R"("127.0.0.2","port":7,)" +
         more + R"("state":"up","since":999996400,"toRouter":{"messages":5000000001},"later":{}}])";
}

// A router as the bus lists it.
std::string point(const std::string& uniqueID, bool connected, int port) {
  return R"({"type":"valtor","name":"router","uniqueID":")" + uniqueID +
         R"(","phy":[{"type":"tcp","ipAddress":"127.0.0.1","port":)" + std::to_string(port) +
         R"(}],"enabled":true,"connected":)" + (connected ? "true}" : "false}");
}

TEST_F(StatusTest, TheDaemonsOwnFiguresDecide) {
  const std::string figures =
      " to_routers=5000000001c from_routers=0c waiting=0 waiting_bytes=0B dropped=0c lost=";
  const std::string up = "1 of 1 enabled connection points connected";
  const std::string upFigures = " | connected=1;;;0;1 delay=D;1;;0" + figures;
  const std::string north = "no/rth (127.0.0.2:7)";
  const struct {
    std::string document;
    int exitCode;
    std::string line;
  } cases[] = {
      {R"("role":{"state":"standby"})", 0, "OK: standby"},
      {router(""), 0, "OK: " + up + upFigures + "0c"},
      {router(R"("state":"down",)"), 2,
       "CRITICAL: 0 of 1 enabled connection points connected; down: " + north +
           " | connected=0;;;0;1 delay=D;1;;0" + figures + "0c"},
      {router(R"("enabled":false,)"), 0,
       "OK: 0 of 0 enabled connection points connected | connected=0;;;0;0 delay=D;1;;0" + figures +
           "0c"},
      {router(R"("stalled":true,"waiting":{"frames":3},)"), 2,
       "CRITICAL: " + up + "; stalled: " + north +
           ", 3 messages wait | connected=1;;;0;1 delay=D;1;;0 to_routers=5000000001c "
           "from_routers=0c waiting=3 waiting_bytes=0B dropped=0c lost=0c"},
      {router(R"("since":999999990,"lost":1,"losses":[999999980],"lastLoss":{"reason":"hung up",)"
              R"("time":999999980},)"),
       1,
       "WARNING: " + up + "; flapping: " + north +
           " is back for 10 s, lost 1 times in 10 minutes, last hung up" + upFigures + "1c"},
      {router(R"("since":999999990,"lost":1,"losses":[999999970],"lastLoss":{"reason":"standby",)"
              R"("time":999999980},)"),
       0, "OK: " + up + upFigures + "1c"},
      {router(R"("lost":4,"losses":[1,999999500,999999600,999999700],"lastLoss":null,)"), 1,
       "WARNING: " + up + "; flapping: " + north +
           " is back for 3600 s, lost 3 times in 10 minutes" + upFigures + "4c"},
      {router("") + R"(,"localQueue":{"delayMs":90000})", 1,
       "WARNING: " + up + "; an answer takes 90 s, messages are waiting" + upFigures + "0c"},
      {router("") +
           R"(,"loops":{"last":{"kind":"NOT","path":"a","from":"x","to":"y","time":999999999}})",
       1, "WARNING: " + up + "; a loop: NOT on \"a\" from x to y" + upFigures + "0c"},
      {router("") + R"(,"unsavedFiles":1)", 1,
       "WARNING: " + up + "; what the daemon knows is not on disk, see its log" + upFigures + "0c"},
      {R"("controller":{"state":"up","since":999999990,"losses":[1,999999980],"lastLoss":{"reason":)"
       R"("send error","time":999999980},"port":)" +
           std::to_string(node.port()) + "}," + router(""),
       1,
       "WARNING: " + up +
           "; flapping: the controller's link is back for 10 s, lost 1 times in 10 minutes, last "
           "send error" +
           upFigures + "0c"},
      {R"("controller":{"state":"down","since":999999999,"port":)" + std::to_string(node.port()) +
           "}," + router(""),
       3, "UNKNOWN: " + up + "; the controller's link is down for 1 s" + upFigures + "0c"},
      {R"("controller":{"state":"down","port":)" + std::to_string(node.port()) + "}," +
           router(R"("state":"down",)"),
       2,
       "CRITICAL: 0 of 1 enabled connection points connected; the controller's link is down; "
       "down: " +
           north + " | connected=0;;;0;1 delay=D;1;;0" + figures + "0c"},
      {R"("routers":7)", 3,
       "UNKNOWN: no connection points are listed by the daemon | delay=D;1;;0 to_routers=0c "
       "from_routers=0c waiting=0 waiting_bytes=0B dropped=0c lost=0c"},
  };
  StatusSocket socket(folder.at("status"));
  socket.start();
  for (const auto& one : cases) {
    // The first of two members counts.
    socket.say(one.document.find("\"controller\"") != std::string::npos
                   ? "{\"now\":1000000000," + one.document + "}"
                   : document(one.document));
    const auto tool = status({"--check", "--timeout", "60"});
    EXPECT_EQ(tool->wait(), one.exitCode) << one.line;
    EXPECT_EQ(std::regex_replace(tool->out(), std::regex("delay=[0-9.e-]+s"), "delay=D"),
              one.line + "\n");
    EXPECT_EQ(tool->err(), "");
  }
  // The daemon has to answer over the node too.
  ready = false;
  for (const bool reads : {true, false}) {
    node->setReadingPaused("*", !reads);
    const auto tool = status({"--check", "--timeout", reads ? "2" : "0.2"});
    EXPECT_EQ(tool->wait(), 3);
    EXPECT_NE(tool->out().find(reads ? "; the daemon does not answer at 127.0.0.1:"
                                     : "; no answer from the node at 127.0.0.1:"),
              std::string::npos)
        << tool->out();
  }
  node->setReadingPaused("*", false);
  socket.say(document(router(R"("lost":2,)")));
  const auto table = status({});
  const auto json = status({"--json"});
  EXPECT_EQ(table->wait() + json->wait(), 0);
  EXPECT_NE(table->out().find("  5000000001  0     0        0        2     -\n"), std::string::npos)
      << table->out();
  EXPECT_NE(json->out().find("\"later\":\t{}"), std::string::npos) << json->out();
  // The daemon of another bus is not asked about this one.
  socket.say(R"({"controller":{"address":"127.0.0.2","port":)" + std::to_string(node.port()) +
             "}," + router("") + "}");
  const auto other = status({"--timeout", "60"});
  nextSent("device");
  answerNext("device", {R"("param":{"connectionPoint":[)" + point("r1", true, 7) + "]}"});
  EXPECT_EQ(other->wait(), 0) << other->err();
  EXPECT_NE(other->out().find("  r1  "), std::string::npos) << other->out();
}

TEST_F(StatusTest, ASocketWithoutAnAnswerIsNamedAndTheBusIsAsked) {
  const auto expectCheck = [&](const std::string& problem) {
    const auto tool = status({"--check", "--timeout", "1"});
    EXPECT_EQ(tool->wait(), 2);
    EXPECT_EQ(tool->out(), "CRITICAL: no daemon answers on the bus at 127.0.0.1:" +
                               std::to_string(node.port()) + problem + "\n");
    EXPECT_EQ(tool->err(), "");
  };
  ready = false;
  expectCheck("");
  const std::string end = ", so only the bus was asked";
  StatusSocket socket(folder.at("status"));
  expectCheck("; " + folder.at("status") + " lies there from a daemon that is gone" + end);
  socket.say(R"({"now":1,"routers":[{"name)");
  socket.start();
  expectCheck("; what " + folder.at("status") + " says is no JSON object" + end);
  socket.stop();
  expectCheck("; nobody answers at " + folder.at("status") + end);
  const auto table = status({"--timeout", "0.4"});
  EXPECT_EQ(table->wait(), 1);
  EXPECT_EQ(table->err().rfind("valtor-bus: nobody answers at " + folder.at("status") +
                                   "; the bus is asked instead\nvaltor-bus: no answer to ",
                               0),
            0U)
      << table->err();
}

TEST_F(StatusTest, ARouterIsFollowedUntilTheDaemonEndsIt) {
  const std::string lines =
      R"({"time":1,"direction":"toRouter","kind":"SET","path":"system","source":490,)"
      R"("destination":0,"passed":false,"rule":"isSystemMessage","bytes":9,"body":"a\u001bb"})"
      "\n"
      R"({"missed":2})"
      "\n"
      R"({"time":1,"direction":"fromRouter","kind":"NOT","path":"route","source":100,)"
      R"("destination":0,"passed":true,"bytes":9,"body":"{}"})"
      "\n";
  const std::string ended = "valtor-bus: the daemon has ended what it told\n";
  const struct {
    std::string told;
    Texts arguments;
    std::regex out;
    std::string err;
  } cases[] = {
      {lines,
       {},
       std::regex("[0-9:]{8}\\.000 toRouter blocked by isSystemMessage: SET system "
                  "490->0 a b\n\\(2 messages more than could be shown\\)\n"
                  "[0-9:]{8}\\.000 fromRouter passed: NOT route 100->0 \\{\\}\n"),
       ended},
      {R"({"missed":2})"
       "\n",
       {"--json"},
       std::regex(R"(\{"missed":2\}\n)"),
       ended},
      {"{\"direction\":\"\xff\"}\n",
       {"--json"},
       std::regex("\\{\"direction\":\"\xEF\xBF\xBD\"\\}\n"),
       ended},
      {R"({"now":1,"routers":[]})"
       "\n",
       {"--timeout", "0"},
       std::regex(""),
       "valtor-bus: the daemon tells how it does instead of messages\n  It may have been too busy "
       "to see in time what was asked.\n"},
      {R"({"error":"no such router"})"
       "\n",
       {"--timeout", "0"},
       std::regex(""),
       "valtor-bus: router \"r\": no such router\n  UNIQUE-ID is that of a router in the table of "
       "status; no more than 16 can follow at a time.\n"},
  };
  StatusSocket socket(folder.at("status"));
  socket.start();
  for (const auto& one : cases) {
    socket.say(one.told);
    Texts arguments = {"follow", "r", "--socket", folder.at("status")};
    arguments.insert(arguments.end(), one.arguments.begin(), one.arguments.end());
    const auto tool = start(arguments);
    EXPECT_EQ(tool->wait(), 1);
    EXPECT_TRUE(std::regex_match(tool->out(), one.out)) << tool->out();
    EXPECT_EQ(tool->err(), one.err);
    EXPECT_EQ(socket.heard(), "follow r\n");
  }
  // Whoever is told something else, or nothing, asks again.
  socket.say("{\"routers\":[]}\n");
  const int before = socket.asked();
  const auto patient = start({"follow", "r", "--timeout", "60", "--socket", folder.at("status")});
  EXPECT_TRUE(eventually([&] { return socket.asked() >= before + 2; }));
  socket.say(lines);
  EXPECT_EQ(patient->wait(), 1);
  EXPECT_EQ(patient->err(), ended);
  EXPECT_NE(patient->out(), "");
}

TEST_F(StatusTest, WhoeverWaitsReturnsOnceTheRoutersAreAsAwaited) {
  StatusSocket socket(folder.at("status"));
  socket.say(document(router(R"("state":"down",)")));
  socket.start();
  const auto waiting = [&](Texts arguments) {
    arguments.insert(arguments.begin(), {"wait", "--socket", folder.at("status")});
    return start(arguments);
  };
  EXPECT_EQ(waiting({"r", "--down", "--timeout", "0"})->wait(), 0);  // one look at least
  const auto late = waiting({"no|rth", "other", "--timeout", "0.2"});
  EXPECT_EQ(late->wait(), 1);
  EXPECT_EQ(late->err(),
            "valtor-bus: after 0.2 s: no|rth (127.0.0.2:7) is down, \"other\" is not listed\n");
  const auto all = waiting({"--timeout", "60"});
  EXPECT_TRUE(eventually([&] { return socket.asked() > 5; }));
  socket.say(document(router("")));
  EXPECT_EQ(all->wait(), 0) << all->err();
  // Without the socket the bus tells.
  const auto bus = start({"wait", "--socket", folder.at("none"), "--timeout", "60"});
  nextSent("device");
  answerNext("device", {R"("param":{"connectionPoint":[)" + point("r1", true, 7) + "]}"});
  EXPECT_EQ(bus->wait(), 0) << bus->err();
}

TEST_F(StatusTest, WithoutASocketTheBusDecides) {
  RunningNode frozen;
  frozen->setReadingPaused("*", true);
  RunningNode alive;
  const std::string place = "router (127.0.0.1:" + std::to_string(frozen.port()) + ")";
  const struct {
    std::string servers;
    std::string clients;
    int exitCode;
    std::string line;
  } cases[] = {
      {"", "", 3, "UNKNOWN: no connection points are listed by connection 101\n"},
      {point("r1", true, alive.port()), "", 0,
       "OK: 1 of 1 enabled connection points connected | connected=1;;;0;1 delay="},
      {point("r1", true, alive.port()), point("r2", true, frozen.port()), 2,
       "CRITICAL: 2 of 2 enabled connection points connected; no sign of life: " + place +
           ", no answer | connected=2;;;0;2 delay="},
      {point("r1", true, alive.port()), point("r2", false, frozen.port()), 2,
       "CRITICAL: 1 of 2 enabled connection points connected; down: " + place +
           " | connected=1;;;0;2 delay="},
  };
  ready = false;
  for (const auto& one : cases) {
    const std::string name = "tool" + std::to_string(&one - cases);
    const auto tool = status({"--check", "--probe", "--timeout", "60", "--name", name});
    if (&one == cases) {
      nextSent("system", name);  // the first round finds no daemon yet
      nextSent("system", name);
    }
    answerNext("device", {R"("param":{"serverConnectionPoint":[)" + one.servers + "]}"}, name);
    answerNext("device", {R"("param":{"connectionPoint":[)" + one.clients + "]}"}, name);
    answerNext("system", {R"("param":{})"}, name);
    EXPECT_EQ(tool->wait(), one.exitCode) << tool->err();
    EXPECT_EQ(tool->out().rfind(one.line, 0), 0U) << tool->out();
  }
  // A daemon that is there and lists nothing.
  ready = true;
  const auto active = status({"--check", "--timeout", "2"});
  EXPECT_EQ(active->wait(), 3);
  EXPECT_EQ(active->out(),
            "UNKNOWN: the daemon lists no connection points, the controller's role is active\n");
  node->setRole("standby");
  const auto standby = status({"--check"});
  EXPECT_EQ(standby->wait(), 0);
  EXPECT_EQ(standby->out(), "OK: standby\n");
  // No node, and no such option.
  node->setReadingPaused("*", true);
  const auto silent = status({"--check", "--timeout", "0.2"});
  EXPECT_EQ(silent->wait(), 3);
  EXPECT_EQ(silent->out().rfind("UNKNOWN: no answer from the node at ", 0), 0U) << silent->out();
  const auto wrong = status({"--check", "--frob"});
  EXPECT_EQ(wrong->wait(), 3);
  EXPECT_EQ(wrong->out(), "UNKNOWN: the command line is wrong, see standard error\n");
}

TEST_F(StatusTest, TheWatchFollowsAndSaysWhatIsStale) {
  const auto watch = status({"--watch", "--timeout", "60"});
  nextSent("device");  // who has no server connection points does not answer this one
  answerNext("device", {R"("param":{"connectionPoint":[)" + point("r1", true, 7) + "]}"});
  const auto shows = [&](const std::string& text) {
    return eventually([&] { return watch->out().find(text) != std::string::npos; });
  };
  EXPECT_TRUE(
      shows("NAME    UNIQUE ID  TYPE    ADDRESS      ENABLED  CONNECTED  SINCE\n"
            "router  r1         valtor  127.0.0.1:7  yes      yes        -\n"));
  const auto announce = [&](const char* key, bool connected) {
    node->inject(
        101, "NOT", "device", 0,
        std::string("{\"") + key + "\":{\"connectionPoint\":[" + point("r1", connected, 7) + "]}}");
  };
  // The same state again: a loss before it was missed, when the daemon crashed.
  announce("param", true);
  EXPECT_TRUE(eventually(
      [&] { return std::regex_search(watch->out(), std::regex("yes      yes        [0-9]")); }));
  announce("param", false);
  EXPECT_TRUE(shows("yes      no         "));
  EXPECT_FALSE(watch->out().find("no         -") != std::string::npos);
  node->stopListening();
  node->closeConnections("valtor-bus");
  EXPECT_TRUE(shows("\nnot known since "));
  node->startListening();
  waitForSubscriptions(2);
  announce("paramDelete", false);
  EXPECT_TRUE(shows("\n\nNAME  UNIQUE ID  TYPE  ADDRESS  ENABLED  CONNECTED  SINCE\n"));
  watch->signal(SIGINT);
  EXPECT_EQ(watch->wait(), 0);
}

}  // namespace
}  // namespace valtor::test
