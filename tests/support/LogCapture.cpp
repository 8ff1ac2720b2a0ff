#include "support/LogCapture.h"

#include <algorithm>
#include <mutex>

#include "support/LogSink.h"

namespace {

struct Store {
  std::mutex mutex;
  bool recording = false;
  std::vector<valtor::test::LogLine> lines;
};

// Never destroyed: threads may log until the process ends.
Store& store = *new Store;

void record(int priority, const std::string& text) {
  const std::lock_guard<std::mutex> lock(store.mutex);
  if (store.recording) {
    store.lines.push_back({priority, text});
  }
}

[[maybe_unused]] const bool installed = (valtor::setLogSink(record), true);

}  // namespace

namespace valtor::test {

LogCapture::LogCapture() {
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.lines.clear();
  store.recording = true;
}

LogCapture::~LogCapture() {
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.recording = false;
}

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard<std::mutex> lock(store.mutex);
  return store.lines;
}

int LogCapture::count(int priority, const std::string& text) const {
  const std::vector<LogLine> all = lines();
  return static_cast<int>(std::count(all.begin(), all.end(), LogLine{priority, text}));
}

int LogCapture::countContaining(const std::string& part) const {
  const std::vector<LogLine> all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine& line) {
    return line.text.find(part) != std::string::npos;
  }));
}

void LogCapture::clear() {
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.lines.clear();
}

}  // namespace valtor::test
