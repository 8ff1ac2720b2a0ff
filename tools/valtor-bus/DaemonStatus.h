#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace valtor {

// What the daemon of this machine says of itself on its status socket: one JSON document for each
// connection. Members that are missing or unknown are no fault. A value; reading blocks no longer
// than it is told to.
class DaemonStatus {
 public:
  // Times are seconds since the epoch.
  struct Link {
    std::optional<double> since;  // up or down
    double lost = 0;              // how often it ended
    std::vector<double> losses;   // when, the newest last
    std::string lossReason;       // of the last end, which may have been meant
    double lossTime = 0;          // when that was
  };
  struct Router : Link {
    std::string name;
    std::string uniqueID;
    std::string address;
    int port = 0;
    bool enabled = true;
    bool up = false;
    bool stalled = false;
    double toRouter = 0;  // messages
    double fromRouter = 0;
    double waitingFrames = 0;
    double waitingBytes = 0;
    double dropped = 0;

    // "address:port"
    std::string place() const { return address + ":" + std::to_string(port); }
  };

  // Asks at the path. Afterwards isThere() tells whether it answered, and problem() why not.
  static DaemonStatus ask(const std::string& path, std::chrono::milliseconds time);
  // From the text of a document; is not there when that is no JSON object.
  explicit DaemonStatus(const std::string& text);

  bool isThere() const { return problem_.empty() && !text_.empty(); }
  // What an operator should know: why there is a socket and no answer. "" when it answered, and
  // when there is no socket at all.
  const std::string& problem() const { return problem_; }
  // The document as it came.
  const std::string& text() const { return text_; }

  double now = 0;
  std::optional<double> startTime;
  std::string version;
  std::string role;  // "active", "standby" or "unknown"
  std::optional<double> roleSince;
  bool controllerDown = false;
  Link controllerLink;
  std::string controllerAddress;  // as it is named; "" when it is not said
  int controllerPort = 0;         // 0: not said
  std::vector<Router> routers;
  double queueDelay = 0;  // seconds that a message waits in the daemon
  double unsavedFiles = 0;
  std::string lastLoop;  // NOT on "tally" from A to B; "" for none
  double lastLoopTime = 0;

 private:
  std::string text_;
  std::string problem_;
};

}  // namespace valtor
