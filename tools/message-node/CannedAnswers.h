#pragma once

#include <memory>
#include <string>

#include "app/util/OwnedJSON.h"
#include "bus/message/PellInternalMessage.h"

namespace valtor {

// Whether the request's list "objectName", inside "param" or beside it, holds the name.
bool requestNamesObject(const PellInternalMessage& request, const char* name);

// Answers that stand for the participants behind a node: values for database objects and for route
// commands, read from one JSON object:
//
//   {"db": {"logicalSources": <value>, ...}, "route": {"stat": <value>}}
//
// A "GET" on "db" gets the values of those of its object names that are known, in one response; a
// "CMD" on "route" with a member of a known name gets the value of the first such name. Not
// thread-safe.
class CannedAnswers {
 public:
  // No answers.
  CannedAnswers() = default;
  // Throws std::runtime_error when the text is anything else; it says what is wrong.
  explicit CannedAnswers(const std::string& jsonText);
  // Throws the same about a value that is no answers.
  static void check(const cJSON* answers);

  // The response with the request's identifier, to its sender, or none when nothing is known about
  // what it asks for. The caller stamps the source.
  std::unique_ptr<PellInternalMessage> answerTo(const PellInternalMessage& request) const;

 private:
  JSONPtr databaseValues(const PellInternalMessage& request) const;
  JSONPtr routeValue(const PellInternalMessage& request) const;

  JSONPtr answers_;
};

}  // namespace valtor
