#include "gauntlet/torture/Subject.h"

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <utility>

namespace valtor::gauntlet {

namespace {

constexpr std::string_view kManager = "torture";  // in the abstract namespace

UniqueDescriptor serviceManager() {
  UniqueDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un place{};
  place.sun_family = AF_UNIX;
  kManager.copy(place.sun_path + 1, kManager.size());
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&place),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + kManager.size())) != 0) {
    throw std::runtime_error("the service manager finds no place");
  }
  return socket;
}

}  // namespace

Subject::Subject(Build build, const std::string& library)
    : build_(std::move(build)),
      library_(library),
      file_(memfd_create("faults", MFD_CLOEXEC)),
      manager_(serviceManager()) {
  if (ftruncate(file_.get(), sizeof(FaultControl)) != 0) {
    throw std::runtime_error("no memory for the faults");
  }
  void* const map =
      mmap(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
  if (map == MAP_FAILED) {
    throw std::runtime_error("no memory for the faults");
  }
  faults_ = static_cast<FaultControl*>(map);
}

Subject::~Subject() {
  process_.reset();
  munmap(faults_, sizeof(FaultControl));
}

void Subject::start(const std::string& command, const std::string& assignments) {
  const std::string sanitizers = "log_path=report:halt_on_error=1:verify_asan_link_order=0";
  process_ = std::make_unique<test::ChildProcess>(
      "exec " + command + " env ASAN_OPTIONS=" + sanitizers + ":detect_leaks=0" +
      " UBSAN_OPTIONS=" + sanitizers + ":print_stacktrace=1" + " VALTOR_FAULTS=/proc/" +
      std::to_string(getpid()) + "/fd/" + std::to_string(file_.get()) + " LD_PRELOAD=" + library_ +
      " WATCHDOG_USEC=" + std::to_string(std::chrono::microseconds(kWatchdog).count()) +
      " NOTIFY_SOCKET=@" + std::string(kManager) + " " + assignments + " " + build_.daemon +
      " >/dev/null 2>err");
}

bool Subject::wasFed() {
  bool fed = false;
  char bytes[64];
  for (ssize_t size = 0; (size = recv(manager_.get(), bytes, sizeof bytes, 0)) > 0;) {
    fed = fed || std::string_view(bytes, static_cast<std::size_t>(size)) == "WATCHDOG=1";
  }
  return fed;
}

int Subject::end() {
  process_->signal(SIGKILL);
  return process_->wait();
}

std::vector<Subject::Line> Subject::log() const {
  const std::size_t size = std::min(faults_->logged.load(), faults_->log.size());
  std::istringstream text(std::string(faults_->log.data(), size));
  std::vector<Line> lines;
  for (std::string line; std::getline(text, line);) {
    if (line.size() > 2) {
      lines.push_back({line[0] - '0', line.substr(2)});
    }
  }
  return lines;
}

bool Subject::said(const std::string& text) const {
  const auto all = log();
  return errors().find(text) != std::string::npos ||
         std::any_of(all.begin(), all.end(),
                     [&](const Line& line) { return line.text.find(text) != std::string::npos; });
}

std::string Subject::story() const {
  std::string text;
  const auto indented = [&text](std::istream& lines) {
    for (std::string line; std::getline(lines, line);) {
      text += "    " + line + "\n";
    }
  };
  for (const Line& line : log()) {
    text += "    " + std::to_string(line.priority) + " " + line.text + "\n";
    if (line.priority == FaultControl::kWay) {
      const test::ChildProcess way("exec addr2line -Cfpse " + build_.daemon + line.text + " >out");
      while (way.isRunning()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      std::istringstream lines(way.out());
      indented(lines);
    }
  }
  std::istringstream lines(errors());
  indented(lines);
  return text;
}

std::string Subject::reports() const {
  std::string found;
  for (const auto& entry : std::filesystem::directory_iterator(process_->folder().path())) {
    if (entry.path().filename().string().rfind("report", 0) == 0) {
      found += test::fileContent(entry.path());
    }
  }
  return found;
}

}  // namespace valtor::gauntlet
