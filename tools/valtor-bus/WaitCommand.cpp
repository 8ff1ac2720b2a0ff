#include <algorithm>
#include <chrono>

#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/ConnectionPointListing.h"
#include "valtor-bus/Exchange.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;

// Between two questions.
constexpr std::chrono::milliseconds kPause{50};
// What the first look gets at least.
constexpr std::chrono::milliseconds kOneLook{100};

// What the daemon of this machine says, or the bus; throws CommandFailure when nobody does until
// the end.
DaemonStatus look(BusConnection& connection, const WaitSettings& settings, Clock::time_point end) {
  StatusSettings quiet;
  quiet.watch = true;
  quiet.socket = settings.socket;
  quiet.timeout = std::chrono::duration<double>(end - Clock::now()).count();
  if (DaemonStatus status = localStatus(connection.settings(), quiet); status.isThere()) {
    return status;
  }
  ConnectionPointListing listing(settings.timeout, connection.settings().times.others);
  listing.run(connection, end);
  return DaemonStatus(listing.table.json());
}

// Which link is not as it should be; "" when all are.
std::string awaited(const DaemonStatus& status, const WaitSettings& settings) {
  std::string texts;
  const auto add = [&](const std::string& text) { texts += (texts.empty() ? "" : ", ") + text; };
  std::vector<std::string> missing = settings.routers;
  bool any = false;
  for (const DaemonStatus::Router& router : status.routers) {
    const auto isNamed = [&](const std::string& name) {
      return name == router.uniqueID || name == router.name;
    };
    const bool named = std::any_of(settings.routers.begin(), settings.routers.end(), isNamed);
    if (!named && (!settings.routers.empty() || !router.enabled)) {
      continue;
    }
    any = true;
    missing.erase(std::remove_if(missing.begin(), missing.end(), isNamed), missing.end());
    if (router.up == settings.down) {
      add(router.name + " (" + router.place() + ") is " + (router.up ? "up" : "down"));
    }
  }
  for (const std::string& name : missing) {
    add("\"" + excerpt(name) + "\" is not listed");
  }
  if (status.controllerDown && !settings.down) {
    add("the controller's link is down");
  }
  return any || !missing.empty() ? texts : "no enabled router is listed";
}

}  // namespace

void wait(BusConnection& connection, const WaitSettings& settings, Output& /*output*/) {
  const Clock::time_point end =
      Clock::now() + std::max<Clock::duration>(toDuration(settings.timeout), kOneLook);
  std::string open;
  do {
    open = awaited(look(connection, settings, end), settings);
    if (open.empty()) {
      return;
    }
    connection.pause(std::min(end, Clock::now() + kPause));
    if (connection.interrupted()) {
      throw Interrupted();
    }
  } while (Clock::now() < end);
  throw CommandFailure(
      ExitCode::Refused,
      "after " + secondsText(std::chrono::duration<double>(settings.timeout)) + ": " + open);
}

}  // namespace valtor
