#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/StatusSocket.h"
#include "valtor-bus/BusConnection.h"
#include "valtor-bus/DaemonStatus.h"
#include "valtor-bus/MessageFormat.h"
#include "valtor-bus/MessageText.h"
#include "valtor-bus/Output.h"

namespace valtor {

// The subcommands of valtor-bus, one function each. Every function opens the connection itself,
// writes its data to the output and throws CommandFailure when it is not done; times are seconds.

constexpr double kAnswerTime = 3;

struct WatchSettings {
  enum class Form { Text, JSON, Raw };
  MessageFilter filter;
  Form form = Form::Text;
  std::optional<MessageFormat> format;  // instead of the form
  std::size_t width = 160;              // of a body as text, in characters; 0: all of it
  std::size_t count = 0;                // 0: no limit
  std::optional<double> timeout;
};
// A line for each message until the count or the time is over, or a signal comes. It fails when
// there is a count that was not reached.
void watch(BusConnection& connection, const WatchSettings& settings, Output& output);

struct GetSettings {
  std::vector<std::string> names;
  std::string path = "device";
  double timeout = kAnswerTime;
};
// Asks for objects and prints their values as one JSON object. Lists of several participants are
// joined.
void get(BusConnection& connection, const GetSettings& settings, Output& output);

struct SendSettings {
  MessageKind kind = MessageKind::Unknown;
  std::string path = "device";
  std::string body = "{}";
  int32_t destination = 0;
  std::size_t answers = 1;  // how many to wait for; 0 waits for none
  double timeout = kAnswerTime;
  bool summary = false;  // print status and "param" of the answer instead of its whole body
  std::string hint = "What is done without an answer needs --no-wait.";  // for no answer
};
// Sends one message, and prints the answers that it waits for. With summary the first that is no
// refusal counts; without it refusals are counted and printed too, and it fails at the end.
void sendMessage(BusConnection& connection, const SendSettings& settings, Output& output);

// The body of a SET or UPDATE, with the text of a JSON object as "param"; the origin is for errors.
std::string paramBody(const std::string& object, const std::string& origin);
// The same from arguments: one JSON object, or NAME=VALUE texts, where a value that is not JSON
// counts as text unless it begins like JSON.
std::string paramBody(const std::vector<std::string>& texts);
// The body of a DEL.
std::string deletionBody(const std::string& base, const std::vector<std::string>& names);
// The body of a GET.
std::string requestBody(const std::vector<std::string>& names);

struct StatusSettings {
  bool watch = false;
  bool check = false;
  bool probe = false;
  bool json = false;
  std::string socket = defaultStatusSocket();  // of the daemon of this machine
  double timeout = kAnswerTime;
};
// The connection points as a table or as JSON, with the daemon's own figures where it is the one of
// this machine, else as far as the bus tells; with watch again at every change.
void status(BusConnection& connection, const StatusSettings& settings, Output& output);

// What the daemon of this machine says of itself, if it is the one of that bus; takes half of the
// time, a second at most. Unless it is asked again and again or for a check, standard error says
// why its socket gives no answer.
DaemonStatus localStatus(const BusSettings& bus, const StatusSettings& settings);

// One line for monitoring systems, in the form and with the exit codes of their plugins: OK,
// WARNING, CRITICAL or UNKNOWN, the reasons, and figures behind "|". With probe every enabled
// router's node is asked for a sign of life too.
void checkStatus(BusConnection& connection, const StatusSettings& settings, Output& output);

struct FollowSettings {
  std::string uniqueID;
  bool json = false;
  std::string socket = defaultStatusSocket();
  double timeout = kAnswerTime;  // for the daemon to begin
};
// Shows what the daemon of this machine says of the messages of one router, a line each, passed or
// blocked by which rule, until a signal ends the process. Asks again as long as the daemon is not
// there, does not know the router or took the question too late. Fails when the daemon ends it.
void follow(BusConnection& connection, const FollowSettings& settings, Output& output);

struct WaitSettings {
  std::vector<std::string> routers;  // names or unique IDs; none for all that are enabled
  bool down = false;                 // until they are not connected
  std::string socket = defaultStatusSocket();
  double timeout = 10;
};
// Returns once the routers are connected, as the daemon says. Fails when the time is over; it looks
// once at least.
void wait(BusConnection& connection, const WaitSettings& settings, Output& output);

struct PingSettings {
  std::string router;  // name, unique ID or "address:port"; "" for the daemon
  std::size_t count = 5;
  double interval = 1;
  double timeout = kAnswerTime;  // for each answer
};
// Prints how long each answer took, then the shortest, median and longest time. Asks the daemon
// whether it is ready, for the first time again and again, or the router's node itself for a sign
// of life. Fails unless every question is answered.
void ping(BusConnection& connection, const PingSettings& settings, Output& output);

struct RouteSettings {
  std::string destinations;  // in the form of NumberRanges.h, like the others
  std::string levels = "0";
  std::string sources;
  bool machineControl = false;
  std::optional<int32_t> userID;
  bool json = false;
  bool noWait = false;
  double timeout = kAnswerTime;
};
// Switches every destination on every level to the one source, or to one source a level in the
// order in which they are written. Fails when any router refuses.
void takeRoute(BusConnection& connection, const RouteSettings& settings, Output& output);
// Prints what feeds the destinations: a line for each destination and level. Fails when something
// that was asked for is in no answer.
void queryRoute(BusConnection& connection, const RouteSettings& settings, Output& output);

struct RecordSettings {
  std::string file;  // "-" for the output
  bool overwrite = false;
  MessageFilter filter;
  std::size_t count = 0;  // 0: no limit
  std::optional<double> timeout;
};
// Writes every message to the file until the count or the time is over, or a signal comes.
void record(BusConnection& connection, const RecordSettings& settings, Output& output);

struct ReplaySettings {
  std::string file;  // "-" for standard input
  MessageFilter filter;
  double speed = 1;  // 2: twice as fast as recorded
  bool noTiming = false;
  bool loop = false;  // begin again at the end, until a signal comes
};
// Sends the messages of the file that the filter accepts as they were recorded, header included,
// except those that set up a connection. A file on disk is checked as a whole before anything is
// sent; only such a one can be looped.
void replay(BusConnection& connection, const ReplaySettings& settings);

}  // namespace valtor
