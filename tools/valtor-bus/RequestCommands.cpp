#include <algorithm>
#include <set>

#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/Exchange.h"

namespace valtor {
namespace {

std::string nameList(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : ",") + quotedJSON(name);
  }
  return "[" + list + "]";
}

bool isEmptyValue(const std::string& json) {
  return json == "null" || json == "[]" || json == "{}" || json == "\"\"";
}

// Adds what an answer says about a name. Several participants may each have a part of a list;
// otherwise the first that has something counts.
void addValue(JSONMembers& values, const std::string& name, const std::string& value) {
  const auto known = std::find_if(values.begin(), values.end(),
                                  [&](const auto& member) { return member.first == name; });
  if (known == values.end()) {
    values.emplace_back(name, value);
  } else if (isEmptyValue(known->second)) {
    known->second = value;
  } else if (known->second.front() == '[' && value.front() == '[' && !isEmptyValue(value)) {
    known->second.back() = ',';
    known->second.append(value, 1);
  }
}

void printAnswer(const PellInternalMessage& answer, const SendSettings& settings, Output& output) {
  if (!settings.summary) {
    if (settings.answers > 1) {
      say("answer of connection " + std::to_string(answer.header.sourceConnID) + ":");
    }
    output.line(formattedJSON(bodyOf(answer)));
    return;
  }
  const std::string state = statusOf(answer);
  output.line(state.empty() ? kindName(answer.getKind()) : state);
  if (const std::string param = paramOf(answer); !param.empty()) {
    output.line(formattedJSON(param));
  }
}

// The JSON of a NAME=VALUE text's value: as it is, or as text. What begins like JSON and is none
// was hardly meant as text.
std::string valueJSON(const std::string& name, const std::string& value) {
  const std::optional<std::string> json = compactJSON(value);
  if (!json && !value.empty() && std::string("{[\"").find(value.front()) != std::string::npos) {
    throw CommandFailure(ExitCode::Usage, "the value of \"" + excerpt(name) +
                                              "\" is no JSON: " + faultInJSON(value));
  }
  return json.value_or(quotedJSON(value));
}

}  // namespace

std::string requestBody(const std::vector<std::string>& names) {
  // Some participants read the names inside "param", others beside it.
  const std::string list = "\"objectName\":" + nameList(names);
  return "{\"param\":{" + list + "}," + list + "}";
}

std::string deletionBody(const std::string& base, const std::vector<std::string>& names) {
  return "{" + (base.empty() ? "" : "\"objectBase\":" + quotedJSON(base) + ",") +
         "\"objectName\":" + nameList(names) + "}";
}

std::string paramBody(const std::string& object, const std::string& origin) {
  const std::string whole = compactJSON(object).value_or("");
  if (whole.empty() || whole.front() != '{') {
    throw CommandFailure(ExitCode::Usage, origin + " is not a JSON object" +
                                              (object.empty()  ? ": it is empty"
                                               : whole.empty() ? ", " + faultInJSON(object)
                                                               : ""));
  }
  return "{\"param\":" + whole + "}";
}

std::string paramBody(const std::vector<std::string>& texts) {
  JSONMembers members;
  for (const std::string& text : texts) {
    const std::size_t sign = text.find('=');
    if (texts.size() == 1 && text.find('{') == 0) {
      return paramBody(text, "\"" + excerpt(text) + "\"");
    }
    if (sign == std::string::npos || sign == 0) {
      throw CommandFailure(ExitCode::Usage,
                           "\"" + excerpt(text) + "\" is neither a JSON object nor NAME=VALUE");
    }
    const std::string name = text.substr(0, sign);
    members.emplace_back(quotedJSON(name), valueJSON(name, text.substr(sign + 1)));
  }
  return "{\"param\":" + objectOfJSON(members) + "}";
}

void get(BusConnection& connection, const GetSettings& settings, Output& output) {
  Exchange exchange(connection,
                    makeRequest(MessageKind::GET, settings.path, requestBody(settings.names)),
                    settings.timeout);
  std::set<std::string> missing;
  for (const std::string& name : settings.names) {
    missing.insert(quotedJSON(name));
  }
  JSONMembers values;
  while (const auto answer = exchange.next()) {
    for (const auto& [name, value] : membersOfJSON(isRefusal(*answer) ? "" : paramOf(*answer))) {
      addValue(values, name, value);
      missing.erase(name);
    }
    if (missing.empty()) {
      exchange.hasEnough();
    }
  }
  if (!values.empty()) {
    output.line(formattedJSON(objectOfJSON(values)));
  }
  exchange.requireAnswer("Check --path and the names, or wait longer with --timeout.");
  if (!missing.empty()) {
    std::string list;
    for (const std::string& name : missing) {
      list += (list.empty() ? "" : ",") + name;
    }
    throw CommandFailure(ExitCode::Refused,
                         "no answer has a value for " + printable("[" + list + "]"),
                         exchange.refusals().empty() ? "" : "Refused by " + exchange.refusals());
  }
}

void sendMessage(BusConnection& connection, const SendSettings& settings, Output& output) {
  const BusRequest request =
      makeRequest(settings.kind, settings.path, settings.body, settings.destination);
  if (settings.answers == 0) {
    sendOnce(connection, request, settings.timeout);
    return;
  }
  Exchange exchange(connection, request, settings.timeout);
  std::size_t seen = 0;
  while (seen < settings.answers) {
    const auto answer = exchange.next();
    if (!answer) {
      break;
    }
    // Whoever wants answers as they are gets refusals too; a change may be somebody else's to make.
    if (!settings.summary || !isRefusal(*answer)) {
      printAnswer(*answer, settings, output);
      ++seen;
    }
  }
  if (settings.summary || seen == 0) {
    exchange.requireAnswer(settings.hint);
  } else {
    exchange.requireNoRefusal();
  }
  if (seen < settings.answers) {
    throwNoAnswer(
        connection, request, settings.timeout,
        std::to_string(seen) + " of " + std::to_string(settings.answers) + " answers came.");
  }
  if (!exchange.refusals().empty()) {
    say("refused by " + exchange.refusals());
  }
}

}  // namespace valtor
