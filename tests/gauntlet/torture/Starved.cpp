// The daemon is starved of what a machine gives it, and gets it back.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/resource.h>
#include <thread>
#include <utility>
#include <vector>

#include "app/util/Paths.h"
#include "gauntlet/torture/Trial.h"

namespace valtor::gauntlet {

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds kPatience{700};

struct Want {
  std::string name;
  bool sanitized;
  std::function<void(Trial&)> play;  // ends when the lack has
};

void expect(Trial& trial, bool condition, const char* what) {
  if (!condition && trial.outcome().finding.empty()) {
    trial.outcome().finding = what;
  }
}

// Starts it and waits until all stands.
void begin(Trial& trial, const std::string& command = "", const std::string& assignments = "") {
  trial.start(command, assignments);
  test::longestWait = std::chrono::seconds(20);
  expect(trial, trial.scene().isUp() && trial.scene().saves(), "it does not come up");
}

// Lowers a limit of the daemon, or lifts it again with the hard limit's value.
class Limit {
 public:
  Limit(Trial& trial, decltype(RLIMIT_AS) resource, rlim_t value)
      : process_(trial.subject().id()), resource_(resource) {
    prlimit(process_, resource_, nullptr, &before_);
    const rlimit lowered{value, before_.rlim_max};
    prlimit(process_, resource_, &lowered, nullptr);
  }
  ~Limit() {
    before_.rlim_cur = before_.rlim_max;
    prlimit(process_, resource_, &before_, nullptr);
  }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  pid_t process_;
  decltype(RLIMIT_AS) resource_;
  rlimit before_{};
};

// A mount that goes with the object.
class Mount {
 public:
  Mount(const std::string& source, std::string path, const char* type, unsigned long flags,
        const char* options)
      : path_(std::move(path)) {
    if (mount(source.c_str(), path_.c_str(), type, flags, options) != 0) {
      throw std::runtime_error("cannot mount on " + path_);
    }
  }
  ~Mount() { umount2(path_.c_str(), MNT_DETACH); }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

 private:
  std::string path_;
};

void cutAll(Scene& scene) {
  (*scene.site().controller)->closeConnections(MessageNode::kEveryone);
  (*scene.site().alpha)->closeConnections(MessageNode::kEveryone);
  (*scene.site().beta)->resetConnections(MessageNode::kEveryone);
}

// What lacks has its name in the log when it did harm.
void expectNamed(Trial& trial, const std::vector<const char*>& says) {
  expect(trial,
         !trial.outcome().harmed ||
             std::any_of(says.begin(), says.end(),
                         [&](const char* text) { return trial.subject().said(text); }),
         "it does not say what lacks");
}

void expectRecovery(Trial& trial) {
  if (trial.outcome().finding.empty()) {
    trial.outcome().finding = trial.recovery();
  }
}

const std::vector<const char*> kNoDescriptors = {"Too many open files", "(24).",
                                                 "error while opening file: "};

// Of these the sanitizers want some themselves.
Want descriptors(unsigned count) {
  return {"descriptors " + std::to_string(count), false, [count](Trial& trial) {
            trial.start("prlimit --nofile=" + std::to_string(count) + ":");
            trial.play(kPatience);
            const Limit lifted(trial, RLIMIT_NOFILE, count);
            expectNamed(trial, kNoDescriptors);
          }};
}

Want fewerDescriptors(unsigned count) {
  return {"fewer descriptors " + std::to_string(count), false, [count](Trial& trial) {
            begin(trial);
            const Limit limit(trial, RLIMIT_NOFILE, count);
            cutAll(trial.scene());
            trial.play(kPatience);
            expectNamed(trial, kNoDescriptors);
          }};
}

rlim_t addressSpace(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/statm");
  rlim_t pages = 0;
  file >> pages;
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// Bodies of megabytes while one router does not read and memory lacks, and what comes behind them.
template <class Play>
void passBodies(Trial& trial, rlim_t megabytes, Play play) {
  auto& site = trial.scene().site();
  (*site.alpha)->setReadingPaused(MessageNode::kEveryone, true);
  {
    const Limit limit(trial, RLIMIT_AS, addressSpace(trial.subject().id()) + (megabytes << 20));
    for (unsigned size = 1; size <= 16; ++size) {
      const std::string body = R"({"id":"big","pad":")" + std::string(size << 20, 'x') + "\"}";
      (*site.controller)->inject(490, "CMD", "route", 0, body);
    }
    play();
  }
  (*site.alpha)->setReadingPaused(MessageNode::kEveryone, false);
}

// A line tells of one message, which both routers lack then, or of one that takes none for a while.
bool saysWhatIsLost(Trial& trial) {
  std::size_t told = 0;
  for (const Subject::Line& line : trial.subject().log()) {
    for (const char* text : {"FAILED to allocate buffer", " failed: ", " is lost: "}) {
      told += line.text.find(text) != std::string::npos ? 1 : 0;
    }
  }
  return trial.scene().lostCommands() <= 2 * told || trial.subject().said(" takes no messages: ");
}

// What is lost is told, then the same with the scenario, whose change of roles may cost messages.
Want memory(unsigned megabytes) {
  return {"memory " + std::to_string(megabytes), false, [megabytes](Trial& trial) {
            Scene& scene = trial.scene();
            MessageNode::Options options;
            options.unsentLimit = std::size_t{1} << 30;  // it waits for the daemon
            scene.site().startController(options);
            begin(trial);
            test::longestWait = kPatience;
            passBodies(trial, megabytes, [&] { scene.carries(1); });
            const auto behind = [&] { return !trial.subject().isRunning() || scene.carries(1); };
            expect(trial, test::eventually(behind, std::chrono::seconds(20)),
                   "nothing comes behind");
            expect(trial, !trial.subject().isRunning() || saysWhatIsLost(trial),
                   "it does not say what is lost");
            expect(trial, scene.trafficFault().empty(), "bodies are damaged or out of order");
            scene.forget();
            if (trial.subject().isRunning()) {
              passBodies(trial, megabytes, [&] { trial.play(kPatience); });
            }
          }};
}

double unsavedFiles() {
  return cJSON_GetNumberValue(cJSON_GetObjectItem(Scene::status().get(), "unsavedFiles"));
}

// A folder whose disk has no room, or takes nothing; what lies there stays whole.
Want disk(const char* name, const std::string& below, const char* says, bool full) {
  return {name, true, [below, says, full](Trial& trial) {
            const std::string root =
                paths().statusSocket.substr(0, paths().statusSocket.rfind("/run/"));
            const std::string path = root + below;
            fs::create_directories(path);
            const Mount place("none", path, "tmpfs", 0, "size=64k");
            begin(trial);
            if (full) {
              if (path + "/" == paths().incomingClientDirectory) {
                fs::remove(*fs::directory_iterator(path));  // or it is written where it lies
              }
              std::ofstream(path + "/filler") << std::string(1 << 17, 'x');
            } else {
              mount("none", path.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=64k");
            }
            trial.play(kPatience);
            expect(trial, trial.outcome().harmed, "the disk took it all the same");
            expect(trial, trial.subject().isRunning(), "it ends");
            expectNamed(trial, {says});
            test::longestWait = std::chrono::seconds(1);
            expect(trial, !trial.scene().saves(), "the disk takes it after all");
            expect(trial, test::eventually([] { return unsavedFiles() > 0; }),
                   "the status does not say that it is not on disk");
            mount("none", path.c_str(), "tmpfs", MS_REMOUNT, "size=64k");
            fs::remove(path + "/filler");
            test::longestWait = std::chrono::seconds(20);
            expect(trial, trial.scene().savesByItself(), "what was answered is not saved at last");
            expect(trial, test::eventually([] { return unsavedFiles() == 0; }),
                   "the status says on that it is not on disk");
            expectRecovery(trial);
          }};
}

Want noStateFolder() {
  return {"no folder for the state", true, [](Trial& trial) {
            const fs::path folder = fs::path(paths().containerDirectory).parent_path();
            fs::remove(folder);
            trial.start();
            trial.play(kPatience);
            fs::create_directories(folder);
          }};
}

// Names are looked up at every attempt; without, the process ends and is started again.
Want noNames(bool later) {
  return {later ? "no names later" : "no names", true, [later](Trial& trial) {
            if (later) {
              begin(trial);
            }
            const Mount hosts("/dev/null", "/etc/hosts", nullptr, MS_BIND, nullptr);
            const Mount servers("/dev/null", "/etc/resolv.conf", nullptr, MS_BIND, nullptr);
            if (later) {
              cutAll(trial.scene());
            } else {
              trial.start();
            }
            test::longestWait = std::chrono::seconds(20);
            expect(trial, test::eventually([&] { return !trial.subject().isRunning(); }),
                   "it goes on without names");
          }};
}

// Does something to the daemon again and again beside the scenario, which must come about. The last
// tells whether it is done.
Want beside(const char* name, std::function<void(Trial&)> again, const std::string& assignments,
            std::function<bool(Trial&)> isDone) {
  return {name, false,
          [again = std::move(again), assignments, isDone = std::move(isDone)](Trial& trial) {
            begin(trial, "", assignments);
            std::atomic<bool> ends{false};
            std::thread other([&] {
              while (!ends) {
                again(trial);
              }
            });
            test::longestWait = std::chrono::seconds(60);
            expect(trial, test::eventually([&] { return isDone(trial); }), "nothing is done to it");
            expect(trial, trial.scene().carries(300), "messages are missing");
            expect(trial, !trial.subject().said("disconnected"), "a link was lost");
            trial.play(std::chrono::seconds(60));
            expect(trial, !trial.outcome().harmed, "not all came about");
            ends = true;
            other.join();
          }};
}

Want tenthOfAProcessor() {
  return beside(
      "a tenth of a processor",
      [](Trial& trial) {
        kill(trial.subject().id(), SIGSTOP);
        std::this_thread::sleep_for(milliseconds(90));
        kill(trial.subject().id(), SIGCONT);
        std::this_thread::sleep_for(milliseconds(10));
      },
      "",
      [](Trial& trial) {
        return test::fileContent("/proc/" + std::to_string(trial.subject().id()) + "/status")
                   .find("T (stopped)") != std::string::npos;
      });
}

Want clockThatJumps() {
  const std::string file = fs::temp_directory_path() / ("clock" + std::to_string(getpid()));
  std::ofstream(file) << "+0\n";
  return beside(
      "a clock that jumps by hours",
      [file](Trial&) {
        for (const char* offset : {"+5h", "-7h", "+0", "-30m", "+48h"}) {
          std::ofstream(file + ".new") << offset << "\n";
          fs::rename(file + ".new", file);
          std::this_thread::sleep_for(milliseconds(50));
        }
      },
      "LD_PRELOAD=" VALTOR_FAILING_CALLS ":" VALTOR_FAKETIME " FAKETIME_TIMESTAMP_FILE=" + file +
          " FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1",
      [](Trial&) {
        const JSONPtr status = Scene::status();
        const double now = cJSON_GetNumberValue(cJSON_GetObjectItem(status.get(), "now"));
        return std::abs(now - static_cast<double>(std::time(nullptr))) > 1800;
      });
}

// Each kind, with what it is done with.
std::vector<std::vector<Want>> wants() {
  constexpr const char* kState = "container could not write";
  constexpr const char* kList = "is not on disk";
  std::vector<std::vector<Want>> all = {
      {tenthOfAProcessor()},
      {clockThatJumps()},
      {noNames(false)},
      {noNames(true)},
      {noStateFolder()},
      {disk("full disk for the state", "/vorn/etc", kState, true)},
      {disk("read-only disk for the state", "/vorn/etc", kState, false)},
      {disk("full disk for the lists", "/tmp/connections", kList, true)},
      {disk("read-only disk for the lists", "/tmp/connections", kList, false)},
      {},
      {},
      {}};
  for (const unsigned megabytes : {0U, 1U, 2U, 4U, 8U, 16U, 32U, 64U, 128U}) {
    all.end()[-3].push_back(memory(megabytes));
  }
  for (unsigned count = 8; count <= 64; ++count) {
    all.end()[-2].push_back(descriptors(count));
    all.end()[-1].push_back(fewerDescriptors(count));
  }
  return all;
}

// Those that are wanted: one of each kind, then another one of each, and so on, so that a sample
// has all kinds.
std::vector<Want> draw(const Settings& settings) {
  std::mt19937 random(settings.seed);
  std::vector<std::vector<Want>> kinds = wants();
  std::vector<Want> drawn;
  for (auto& kind : kinds) {
    std::shuffle(kind.begin(), kind.end(), random);
  }
  for (bool more = true; std::exchange(more, false);) {
    for (auto& kind : kinds) {
      if (!kind.empty()) {
        more = true;
        if (isWanted(kind.back().name, settings)) {
          drawn.push_back(std::move(kind.back()));
        }
        kind.pop_back();
      }
    }
  }
  if (settings.most != 0 && settings.most < drawn.size()) {
    drawn.erase(drawn.begin() + static_cast<std::ptrdiff_t>(settings.most), drawn.end());
  }
  return drawn;
}

}  // namespace

int tortureStarved(const Settings& settings) {
  const std::vector<Want> drawn = draw(settings);
  Trial::Troubles usual;
  {
    // What links that end bring about is no word about what lacks.
    Trial trial(settings.plain, settings);
    begin(trial);
    cutAll(trial.scene());
    trial.play(std::chrono::seconds(20));
    trial.recovery();
    usual = trial.troubles();
    usual.insert("Client message loops limit  reached. breaking.");  // on a busy machine
  }
  Tally tally;
  for (std::size_t i = settings.worker; i < drawn.size(); i += settings.workers) {
    Trial trial(drawn[i].sanitized ? settings.sanitized : settings.plain, settings);
    drawn[i].play(trial);
    note(tally, drawn[i].name, trial.judge(usual), settings);
  }
  return print(tally);
}

}  // namespace valtor::gauntlet
