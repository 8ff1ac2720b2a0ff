#pragma once

#include <string>

#include "bus/message/PellInternalMessage.h"
#include "data/StatusCode.h"

namespace valtor {

// The fixed text of a status code; "Unknown" for 0, "" for a code outside the table.
const char* statusText(int code);

// A response: kind RSP on the request's path, addressed to the request's source, with the request's
// identifier. Looking at the request leaves it as it was received. Trees handed in become part of
// the body. Texts may be null: the member is then left out.
class RSPMessage : public PellInternalMessage {
 public:
  // Which member carries a result value.
  enum class ValueKey { Param, ParamDescriptor };

  // What the general constructor says about the request that it answers.
  struct Request {
    std::string path;
    int32_t connID = 0;  // who asked
    std::string identifier;
    MessageKind kind = MessageKind::Unknown;
  };

  // "requestCommand", "statusCode", "statusMsg", then "objectName", "details", "param" when given.
  RSPMessage(const Request& request, const char* objectName, int statusCode, JSONPtr param,
             JSONPtr details);
  // The same without "param", about a received request.
  RSPMessage(const PellInternalMessage& request, const char* objectName, int statusCode,
             JSONPtr details);
  // Status 200, then "objectBase" and the value when given.
  RSPMessage(const PellInternalMessage& request, const char* objectBase, JSONPtr value,
             ValueKey key = ValueKey::Param);
  // "requestCommand", "statusCode" and "statusMsg" only.
  RSPMessage(const PellInternalMessage& request, int statusCode);
  ~RSPMessage() override;
  RSPMessage(RSPMessage&&) noexcept = default;

  // Status 200 and "param" when given, without "requestCommand"; the identifier is the request's as
  // far as it is known already.
  static RSPMessage withoutRequestCommand(const PellInternalMessage& request, JSONPtr param);

  // The body's "statusCode" when it is a valid code of the table, else 0.
  int getStatusCode() const;

 private:
  RSPMessage(const PellInternalMessage& request, std::string identifier);

  void addStatus(int statusCode);
  void addText(const char* key, const char* text);
};

struct ResponseSummary {
  std::string id;
  std::string requestCommand;
  int32_t statusCode = 0;
  std::string statusMsg;
};

// Reads a response back. Throws std::runtime_error with "no data object", or with the first missing
// member's name and " not found", or an ill-typed one's and " is not string type".
ResponseSummary readResponseSummary(const PellInternalMessage& message);

// One member of an object; throw std::runtime_error as above.
std::string getStringField(const cJSON* tree, const char* key);
int getIntField(const cJSON* tree, const char* key);

}  // namespace valtor
