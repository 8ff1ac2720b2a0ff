#include <algorithm>
#include <array>
#include <cstdio>
#include <set>
#include <utility>

#include "app/util/OwnedJSON.h"
#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/Exchange.h"
#include "valtor-bus/JSONText.h"

namespace valtor {
namespace {

std::string described(const BusRequest& request) {
  return std::string(kindName(request.kind)) + " on \"" + request.path + "\"";
}

std::string secondsText(double seconds) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%g s", seconds);
  return text.data();
}

// What a refusal says about itself beyond its status.
std::string detailsOf(const PellInternalMessage& answer) {
  const cJSON* details = cJSON_GetObjectItem(answer.viewBody(), "details");
  return details != nullptr ? ", details " + printable(printJSON(details, false)) : "";
}

std::string nameList(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : ",") + quotedJSON(name);
  }
  return "[" + list + "]";
}

// Moves the members of an answer's value into the object; what it names is no longer missing.
void collect(const cJSON* param, cJSON* values, std::set<std::string>& missing) {
  const cJSON* member = nullptr;
  cJSON_ArrayForEach(member, param) {
    if (member->string != nullptr && cJSON_GetObjectItem(values, member->string) == nullptr) {
      addMember(values, member->string, JSONPtr(cJSON_Duplicate(member, 1)));
      missing.erase(member->string);
    }
  }
}

void printAnswer(const PellInternalMessage& answer, const SendSettings& settings, Output& output) {
  if (!settings.summary) {
    output.line(printJSON(answer.viewBody(), true));
    return;
  }
  const std::string state = statusOf(answer);
  output.line(state.empty() ? kindName(answer.getKind()) : state);
  if (const cJSON* param = answerParam(answer); param != nullptr) {
    output.line(printJSON(param, true));
  }
}

}  // namespace

bool exchange(BusConnection& connection, const BusRequest& request, double seconds,
              const std::function<bool(const PellInternalMessage&)>& hasEnough) {
  const auto end = BusConnection::Clock::now() + toDuration(seconds);
  connection.send(request);
  while (const auto message = connection.receive(end)) {
    if (!isAnswerTo(request, *message)) {
      continue;
    }
    if (isRefusal(*message)) {
      throw CommandFailure(ExitCode::Refused, described(request) + " was refused by connection " +
                                                  std::to_string(message->header.sourceConnID) +
                                                  ": " + statusOf(*message) + detailsOf(*message));
    }
    if (hasEnough(*message)) {
      return true;
    }
  }
  if (connection.interrupted()) {
    throw CommandFailure(ExitCode::Refused, described(request) + ": interrupted");
  }
  return false;
}

void throwNoAnswer(const BusConnection& connection, const BusRequest& request, double seconds,
                   const std::string& hint) {
  throw CommandFailure(ExitCode::Refused,
                       "no answer to " + described(request) + " from " + connection.where() +
                           " within " + secondsText(seconds),
                       hint);
}

const cJSON* answerParam(const PellInternalMessage& answer) {
  const cJSON* param = cJSON_GetObjectItem(answer.viewBody(), "param");
  return param != nullptr ? param : cJSON_GetObjectItem(answer.viewBody(), "paramDescriptor");
}

std::string requestBody(const std::vector<std::string>& names) {
  // Some participants read the names inside "param", others beside it.
  const std::string list = "\"objectName\":" + nameList(names);
  return "{\"param\":{" + list + "}," + list + "}";
}

std::string deletionBody(const std::string& base, const std::vector<std::string>& names) {
  return "{" + (base.empty() ? "" : "\"objectBase\":" + quotedJSON(base) + ",") +
         "\"objectName\":" + nameList(names) + "}";
}

std::string paramBody(const std::vector<std::string>& texts) {
  if (texts.size() == 1) {
    const std::string whole = compactJSON(texts.front()).value_or("");
    if (!whole.empty() && whole.front() == '{') {
      return "{\"param\":" + whole + "}";
    }
  }
  std::string members;
  for (const std::string& text : texts) {
    const std::size_t sign = text.find('=');
    if (sign == std::string::npos || sign == 0) {
      throw CommandFailure(ExitCode::Usage,
                           "\"" + printable(text) + "\" is neither a JSON object nor NAME=VALUE");
    }
    const std::string value = text.substr(sign + 1);
    members += (members.empty() ? "" : ",") + quotedJSON(text.substr(0, sign)) + ":" +
               compactJSON(value).value_or(quotedJSON(value));
  }
  return "{\"param\":{" + members + "}}";
}

void get(BusConnection& connection, const GetSettings& settings, Output& output) {
  const BusRequest request =
      makeRequest(MessageKind::GET, settings.path, requestBody(settings.names));
  connection.open();
  std::set<std::string> missing(settings.names.begin(), settings.names.end());
  const JSONPtr values(cJSON_CreateObject());
  bool answered = false;
  const bool complete =
      exchange(connection, request, settings.timeout, [&](const PellInternalMessage& answer) {
        answered = true;
        collect(answerParam(answer), values.get(), missing);
        return missing.empty();
      });
  connection.finish();
  if (values->child != nullptr) {
    output.line(printJSON(values.get(), true));
  }
  if (!complete && !answered) {
    throwNoAnswer(connection, request, settings.timeout,
                  "Check --path and the names, or wait longer with --timeout.");
  }
  if (!complete) {
    throw CommandFailure(ExitCode::Refused,
                         "no value within " + secondsText(settings.timeout) + " for " +
                             printable(nameList({missing.begin(), missing.end()})));
  }
}

void sendMessage(BusConnection& connection, const SendSettings& settings, Output& output) {
  const BusRequest request =
      makeRequest(settings.kind, settings.path, settings.body, settings.destination);
  connection.open();
  std::size_t seen = 0;
  if (settings.answers == 0) {
    connection.send(request);
  } else if (!exchange(connection, request, settings.timeout,
                       [&](const PellInternalMessage& answer) {
                         printAnswer(answer, settings, output);
                         return ++seen >= settings.answers;
                       })) {
    throwNoAnswer(connection, request, settings.timeout,
                  seen > 0 ? std::to_string(seen) + " of " + std::to_string(settings.answers) +
                                 " answers came."
                           : "What is done without an answer needs --no-wait.");
  }
  connection.finish();
}

}  // namespace valtor
