#pragma once

#include <string>
#include <vector>

#include "bus/message/PellInternalMessage.h"

namespace valtor {

class RouteOperation;

// The requests and notifications that the daemon builds. They add no state to PellInternalMessage,
// only constructors. Each takes a new identifier, which is the first member of the body, and owns
// the trees handed to it.

class GETMessage : public PellInternalMessage {
 public:
  // "param": value.
  GETMessage(std::string path, JSONPtr value);
  // {"objectName": names, "arguments": arguments when given} under "paramDescriptor" when the
  // descriptor flag is 1, else under "param".
  GETMessage(std::string path, const std::vector<std::string>& objectNames,
             JSONPtr arguments = nullptr, int descriptor = 0);
  ~GETMessage() override;
};

class SETMessage : public PellInternalMessage {
 public:
  // "param": value.
  SETMessage(std::string path, JSONPtr value);
  // "seq": [number, count] when number > 0 and count >= 1, then "param": value.
  SETMessage(std::string path, JSONPtr value, int sequenceNumber, int sequenceCount);
  ~SETMessage() override;
};

class NOTMessage : public PellInternalMessage {
 public:
  enum class Form { Plain, Wrapped };
  // Plain: key: value. Wrapped: "param": {key: value}.
  NOTMessage(std::string path, const char* key, JSONPtr value, Form form = Form::Plain);
  ~NOTMessage() override;
};

class CMDMessage : public PellInternalMessage {
 public:
  // CMD on "route": key: [the operation], "userID": the operation's.
  CMDMessage(const RouteOperation& operation, const char* key);
  // CMD on "route": key: [each operation, in order], "userID": userID.
  CMDMessage(const std::vector<RouteOperation>& operations, const char* key, int userID);
  // CMD on "route": key: value.
  CMDMessage(JSONPtr value, const char* key);
  // CMDNOT on the path, nothing more.
  explicit CMDMessage(std::string path);
  // As given, nothing more.
  CMDMessage(MessageKind kind, std::string path);
  CMDMessage(MessageKind kind, std::string path, int32_t destConnID, std::string identifier);
  ~CMDMessage() override;
};

}  // namespace valtor
