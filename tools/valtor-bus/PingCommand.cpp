#include <algorithm>
#include <charconv>
#include <numeric>
#include <optional>

#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/ConnectionPointListing.h"
#include "valtor-bus/Exchange.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;
using Trip = std::optional<Clock::duration>;

std::string millisecondsText(Clock::duration time) {
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%.3f ms",
                std::chrono::duration<double, std::milli>(time).count());
  return text.data();
}

// The place of the router with that name or unique ID.
std::string placeOf(const std::string& router, BusConnection& connection, double timeout) {
  ConnectionPointListing listing(timeout, connection.settings().times.others);
  listing.run(connection, Clock::now() + toDuration(timeout));
  std::string place;
  for (const auto& [uniqueID, row] : listing.table.rows()) {
    if (uniqueID == router || (row.name == router && place.empty())) {
      place = row.address;
    }
  }
  return place;
}

// The bus at "address:port"; none when the text is no such place.
std::optional<BusSettings> busAt(const std::string& place, BusSettings settings) {
  const std::size_t colon = place.find_last_of(':');
  if (colon == std::string::npos || colon == 0) {
    return std::nullopt;
  }
  const char* end = place.data() + place.size();
  settings.host = place.substr(0, colon);
  const auto result = std::from_chars(place.data() + colon + 1, end, settings.port);
  return result.ec == std::errc() && result.ptr == end ? std::optional(settings) : std::nullopt;
}

BusSettings routerBus(const std::string& router, BusConnection& connection, double timeout) {
  std::optional<BusSettings> bus = busAt(router, connection.settings());
  if (!bus) {
    bus = busAt(placeOf(router, connection, timeout), connection.settings());
  }
  if (!bus) {
    throw CommandFailure(ExitCode::Refused, "no router \"" + excerpt(router) + "\" is listed",
                         "See status for what there is, or give ADDRESS:PORT.");
  }
  return *bus;
}

// Opens the connection, asks, and prints a line for each answer; how long they took. The first may
// have to wait until somebody is there.
template <class Ask>
std::vector<Clock::duration> askAgainAndAgain(BusConnection& connection,
                                              const PingSettings& settings, Output& output,
                                              Ask ask) {
  std::vector<Clock::duration> times;
  Clock::time_point deadline = Clock::now() + toDuration(settings.timeout);
  openBefore(connection, deadline);
  Clock::time_point next = Clock::now();
  for (std::size_t number = 1; number <= settings.count; ++number) {
    connection.pause(next);
    next = Clock::now() + toDuration(settings.interval);
    if (number > 1) {
      deadline = Clock::now() + toDuration(settings.timeout);
      connection.setDeadline(deadline);
    }
    const Trip trip = ask(deadline, number == 1);
    output.line(std::to_string(number) + ": " +
                (trip ? millisecondsText(*trip)
                      : "no answer within " +
                            secondsText(std::chrono::duration<double>(settings.timeout))));
    if (trip) {
      times.push_back(*trip);
    }
  }
  return times;
}

std::string summary(std::vector<Clock::duration> times) {
  if (times.empty()) {
    return "";
  }
  std::sort(times.begin(), times.end());
  const std::size_t middle = times.size() / 2;
  const Clock::duration median =
      times.size() % 2 == 1 ? times[middle] : (times[middle - 1] + times[middle]) / 2;
  return ", minimum " + millisecondsText(times.front()) + ", median " + millisecondsText(median) +
         ", maximum " + millisecondsText(times.back());
}

}  // namespace

void ping(BusConnection& connection, const PingSettings& settings, Output& output) {
  std::vector<Clock::duration> times;
  if (settings.router.empty()) {
    times = askAgainAndAgain(connection, settings, output,
                             [&](Clock::time_point deadline, bool isFirst) {
                               return askDaemon(connection, deadline, isFirst);
                             });
  } else {
    // Never destroyed, as the connection of main().
    static BusConnection& node =
        *new BusConnection(routerBus(settings.router, connection, settings.timeout));
    times = askAgainAndAgain(
        node, settings, output,
        [](Clock::time_point deadline, bool /*isFirst*/) { return node.roundTrip(deadline); });
  }
  output.line(std::to_string(times.size()) + " of " + std::to_string(settings.count) + " answered" +
              summary(times));
  if (times.size() < settings.count) {
    throw CommandFailure(ExitCode::Refused,
                         std::to_string(settings.count - times.size()) + " had no answer",
                         settings.router.empty() ? "Is the daemon running?" : "");
  }
}

}  // namespace valtor
