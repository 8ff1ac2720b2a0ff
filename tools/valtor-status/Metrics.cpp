#include "valtor-status/Metrics.h"

#include <array>
#include <cstdio>
#include <initializer_list>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "app/util/ErrnoText.h"
#include "support/PrintableText.h"

namespace valtor {
namespace {

using Router = StatusFigures::Router;
using Labels = std::initializer_list<std::pair<const char*, std::string_view>>;

// Within the quotes of a label's value. Cut, as a name stands in a line for each rule.
std::string escaped(std::string_view value) {
  constexpr std::size_t kLongest = 255;  // bytes
  std::string result;
  for (const char byte : withoutBrokenUtf8(cutText(value, kLongest))) {
    if (byte == '\n') {
      result += "\\n";
    } else {
      result += byte == '\\' || byte == '"' ? "\\" : "";
      result += byte;
    }
  }
  return result;
}

// As they stand in a line: a="b",c="d"
std::string joined(Labels labels) {
  std::string text;
  for (const auto& [label, value] : labels) {
    text.append(text.empty() ? "" : ",").append(label) += "=\"" + escaped(value) + "\"";
  }
  return text;
}

class Exposition {
 public:
  // The lines that follow belong to this metric.
  void begin(const char* name, const char* type, const char* help) {
    name_ = name;
    series_.clear();
    text_ += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }

  void value(double value, const std::string& labels = "") {
    std::array<char, 40> number{};
    std::snprintf(number.data(), number.size(), " %.15g\n", value);
    text_ += name_;
    if (!labels.empty()) {
      text_.append("{").append(labels).append("}");
    }
    text_ += number.data();
  }

  // The same labels again are left out: Prometheus would refuse all for that.
  void valueOnce(double value, const std::string& labels) {
    if (series_.insert(labels).second) {
      this->value(value, labels);
    }
  }

  std::string takeText() { return std::move(text_); }

 private:
  const char* name_ = "";
  std::unordered_set<std::string> series_;  // of this metric
  std::string text_;
};

void addBus(Exposition& out, const BusParticipant::View& bus) {
  out.begin("valtor_bus_up", "gauge",
            "Whether this program is connected to the controller's node.");
  out.value(bus.up ? 1 : 0);
  out.begin("valtor_bus_messages_total", "counter", "Messages seen on the controller's bus.");
  out.value(static_cast<double>(bus.messages));
  if (bus.daemonDelayMs) {
    out.begin("valtor_daemon_delay_seconds", "gauge",
              "How long the daemon takes, or has taken by now, to answer on the bus.");
    out.value(*bus.daemonDelayMs / 1000);
  }
}

// Each router with its labels, which all of its lines begin with; one of those with the same.
struct Labelled {
  const Router& router;
  std::string labels;
};
using Routers = std::vector<Labelled>;

Routers labelled(const StatusFigures& status) {
  Routers routers;
  std::unordered_set<std::string> known;
  for (const Router& router : status.routers) {
    std::string labels = joined({{"router", router.uniqueID}, {"name", router.name}});
    if (known.insert(labels).second) {
      routers.push_back({router, std::move(labels)});
    }
  }
  return routers;
}

// One metric with a value for each router.
template <class Value>
void addForRouters(Exposition& out, const Routers& routers, const char* name, const char* type,
                   const char* help, Value value) {
  out.begin(name, type, help);
  for (const Labelled& one : routers) {
    out.value(value(one.router), one.labels);
  }
}

// Calls add(labels, traffic) for each router and direction.
template <class Add>
void forTraffic(const Routers& routers, Add add) {
  for (const auto& [router, labels] : routers) {
    add(labels + ",direction=\"to_router\"", router.toRouter);
    add(labels + ",direction=\"from_router\"", router.fromRouter);
  }
}

void addTraffic(Exposition& out, const Routers& routers, const char* name, const char* help,
                double StatusFigures::Traffic::*member) {
  out.begin(name, "counter", help);
  forTraffic(routers, [&](const std::string& labels, const StatusFigures::Traffic& traffic) {
    out.value(traffic.*member, labels);
  });
}

void addRouters(Exposition& out, const Routers& routers) {
  const auto isIn = [](const char* state) {
    return [state](const Router& router) { return router.link.state == state ? 1 : 0; };
  };
  addForRouters(out, routers, "valtor_router_up", "gauge", "Whether the router is connected.",
                isIn("up"));
  addForRouters(out, routers, "valtor_router_disabled", "gauge",
                "Whether the router is disabled, so that it need not be up.", isIn("disabled"));
  addForRouters(out, routers, "valtor_router_stalled", "gauge",
                "Whether messages are dropped since the router takes none.",
                [](const Router& router) { return router.stalled ? 1 : 0; });
  addForRouters(out, routers, "valtor_router_lost_total", "counter",
                "How often the router's link ended without being meant to.",
                [](const Router& router) { return router.link.lost; });
  addForRouters(out, routers, "valtor_router_dropped_total", "counter",
                "Messages dropped since the router took none.",
                [](const Router& router) { return router.dropped; });
  addForRouters(out, routers, "valtor_router_lost_with_link_total", "counter",
                "Messages that waited for the router when its link ended.",
                [](const Router& router) { return router.lostWithLink; });
  addForRouters(out, routers, "valtor_router_waiting_messages", "gauge",
                "Messages that wait for the router.",
                [](const Router& router) { return router.waitingFrames; });
  addForRouters(out, routers, "valtor_router_waiting_bytes", "gauge",
                "Bytes that wait for the router.",
                [](const Router& router) { return router.waitingBytes; });
  addTraffic(out, routers, "valtor_router_messages_total", "Messages that crossed.",
             &StatusFigures::Traffic::messages);
  addTraffic(out, routers, "valtor_router_bytes_total", "Bytes that crossed, frames included.",
             &StatusFigures::Traffic::bytes);
  out.begin("valtor_router_blocked_total", "counter", "Messages kept back, by rule.");
  forTraffic(routers, [&](const std::string& labels, const StatusFigures::Traffic& traffic) {
    for (const auto& [rule, count] : traffic.rules) {
      out.valueOnce(count, labels + "," + joined({{"rule", rule}}));
    }
  });
}

void addDaemon(Exposition& out, const StatusFigures& status) {
  out.begin("valtor_info", "gauge", "The daemon's version.");
  out.value(1, joined({{"version", status.version}}));
  out.begin("valtor_start_time_seconds", "gauge", "When the daemon started, since 1970.");
  out.value(status.startTime);
  out.begin("valtor_role", "gauge", "1 for the role of the controller.");
  for (const char* role : {"active", "standby", "unknown"}) {
    out.value(status.role == role ? 1 : 0, joined({{"role", role}}));
  }
  out.begin("valtor_controller_up", "gauge", "Whether the daemon is connected to the controller.");
  out.value(status.controller.state == "up" ? 1 : 0);
  out.begin("valtor_controller_lost_total", "counter",
            "How often the daemon's link to the controller ended without being meant to.");
  out.value(status.controller.lost);
  out.begin("valtor_controller_messages_total", "counter",
            "Messages on the daemon's link to the controller, its own included.");
  out.value(status.toBus.messages, joined({{"direction", "to_bus"}}));
  out.value(status.fromBus.messages, joined({{"direction", "from_bus"}}));
  out.begin("valtor_controller_bytes_total", "counter",
            "Bytes on the daemon's link to the controller.");
  out.value(status.toBus.bytes, joined({{"direction", "to_bus"}}));
  out.value(status.fromBus.bytes, joined({{"direction", "from_bus"}}));
  out.begin("valtor_queue_delay_seconds", "gauge",
            "How long the oldest message from the controller has waited to be handled.");
  out.value(status.queueDelay);
  out.begin("valtor_unsaved_files", "gauge",
            "Files that could not be written and hold less than the daemon knows.");
  out.value(status.unsavedFiles);
  out.begin("valtor_crossing_messages_total", "counter",
            "Messages that passed the rules, by kind and path.");
  for (const StatusFigures::Crossing& crossing : status.crossing) {
    out.valueOnce(crossing.messages, joined({{"direction", crossing.direction},
                                             {"kind", crossing.kind},
                                             {"path", crossing.path}}));
  }
  out.begin("valtor_loop_episodes_total", "counter",
            "How often messages began to go round in circles.");
  out.value(status.loopEpisodes);
  out.begin("valtor_warnings_total", "counter", "Lines of the daemon's log, by kind.");
  for (const auto& [kind, count] : status.warnings) {
    out.valueOnce(count, joined({{"kind", kind}}));
  }
  out.begin("valtor_resident_memory_bytes", "gauge", "Memory that the daemon holds.");
  out.value(status.residentBytes);
  out.begin("valtor_allocated_memory_bytes", "gauge", "What the daemon uses of that for its data.");
  out.value(status.allocatedBytes);
}

}  // namespace

std::string metricsText(const LiveState::Figures& figures, const std::string& version) {
  Exposition out;
  out.begin("valtor_status_info", "gauge", "The version of the program that says this.");
  out.value(1, joined({{"version", version}}));
  out.begin("valtor_up", "gauge", "Whether the daemon answers on its status socket.");
  out.value(figures.answering ? 1 : 0);
  if (figures.age >= 0) {
    out.begin("valtor_status_age_seconds", "gauge",
              "How old the last thing is that the daemon said.");
    out.value(figures.age);
  }
  addBus(out, figures.bus);
  if (figures.answering) {
    addDaemon(out, figures.status);
    addRouters(out, labelled(figures.status));
  }
  return out.takeText();
}

}  // namespace valtor
