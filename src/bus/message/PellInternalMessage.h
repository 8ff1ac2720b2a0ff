#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "bus/message/Frame.h"
#include "bus/message/HeaderLine.h"

namespace valtor {

// One message of the bus: header and JSON body. It owns its body tree and the payload it was
// decoded from. Movable, not copyable; a moved-from message is empty. One thread at a time uses a
// message; the operations marked const may still parse the body into a cache of the object.
//
// A received body is handed on as the bytes that were received: white space, number spelling and
// big integers included. Whoever only looks at a message reads viewBody(), which leaves encode()
// alone; after getBody() the message renders its tree instead.
class PellInternalMessage {
 public:
  // A new message with a new identifier and the body {"id": identifier}; connection ids 0.
  PellInternalMessage(MessageKind kind, std::string path);
  // The same with a given addressee and identifier, as answers use it.
  PellInternalMessage(MessageKind kind, std::string path, int32_t destConnID,
                      std::string identifier);
  // Takes over a finished body, an object, and appends a new identifier to it as "id". Without a
  // body, one is made.
  PellInternalMessage(MessageKind kind, std::string path, JSONPtr body);
  // Decodes a received payload: a buffer with a NUL behind the text; the text ends at the first
  // NUL. What cannot be decoded is logged and leaves isDecoded() false. Throws only when memory
  // runs out.
  explicit PellInternalMessage(std::unique_ptr<char[]> payload);
  // Decodes a payload held in a vector whose last byte should be NUL; when it is not, that is said
  // on standard error and one is appended. Throws std::runtime_error with
  // "Error Parsing PellinternalMessage" when the header does not decode.
  explicit PellInternalMessage(std::vector<char> payload);

  virtual ~PellInternalMessage();
  PellInternalMessage(PellInternalMessage&& other) noexcept;
  PellInternalMessage& operator=(PellInternalMessage&& other) noexcept;
  PellInternalMessage(const PellInternalMessage&) = delete;
  PellInternalMessage& operator=(const PellInternalMessage&) = delete;

  // The payload text: the header line, written anew from its fields, and the body. A header line
  // longer than 255 characters is cut there and that is logged as a warning.
  virtual std::string encode() const;
  // True for CMD, CMDRSP and CMDNOT.
  virtual bool isCommand() const;

  // encode() with another source connection id in the header line.
  std::string encodeFrom(int32_t sourceConnID) const;
  // The header line as encode() writes it, with its line feed unless it was cut. Logs nothing.
  std::string headerLine() const;

  // False when the message was received and its header failed any rule, whatever its kind says.
  bool isDecoded() const { return decoded_; }

  MessageKind getKind() const { return header.kind; }
  std::string getPath() const { return header.path; }
  int32_t getDestConnID() const { return header.destConnID; }

  // A received body is not parsed when its tree would hold more values than this, names of members
  // counted: one frame of small values would take a gigabyte. It reads as one that does not parse.
  static constexpr std::size_t kMostValues = 2'000'000;

  // The message's own body tree, parsed from the received text on first use and kept; from then on
  // encode() renders it. A JSON null when there is no text or it does not parse. Never null. The
  // tree belongs to the message.
  cJSON* getBody();
  // A new tree parsed from the received text, owned by the caller. A JSON null when there is no
  // such text, as in every built message, or it does not parse.
  JSONPtr parseBody() const;
  // The body for whoever only looks: parsed at most once per message, kept beside the received
  // text, never rendered by encode(). Never null; valid as long as the message.
  const cJSON* viewBody() const;

  // The undecoded body of a received message, or null.
  const char* bodyText() const { return bodyText_; }

  // The header line as it was received, without its line feed, or null when the message was built,
  // or received with a header that did not decode.
  const char* receivedLine() const {
    if (bodyText_ == nullptr) {
      return nullptr;
    }
    return rawVector_.empty() ? rawBuffer_.get() : rawVector_.data();
  }
  // The payload as it was received, up to its first NUL: what a node hands on. "" where
  // receivedLine() is null.
  std::string receivedText() const {
    return bodyText_ != nullptr ? std::string(receivedLine()).append("\n").append(bodyText_)
                                : std::string();
  }

  // The message identifier: the "id" of the body, "" when there is none.
  std::string getUniqueId() const;
  // The length of the payload that the message was cut out of a stream with, in bytes; 0 for
  // others.
  std::size_t receivedBytes() const { return receivedBytes_; }
  void setReceivedBytes(std::size_t count) { receivedBytes_ = count; }

  // The identifier as far as it is known already, without looking into the body.
  const std::string& knownUniqueId() const { return uniqueId_; }
  // The two integers of the body's "seq" when it is an array of exactly 2 elements, else 0 and 0.
  std::pair<int, int> getSequence() const;
  bool isScheduled() const { return header.isScheduled(); }
  // Appends elementsOfPath(path) to header.pathElements.
  void splitPath();

  PellInternalHeader header;

 protected:
  // The body tree of a built message, for the constructors of derived classes.
  cJSON* builtBody() { return body_.get(); }

 private:
  friend SharedFrame frameOf(const PellInternalMessage& message, int32_t sourceConnID);

  void decode(char* payload);
  // Logs a cut.
  HeaderLine writtenLine(int32_t sourceConnID) const;
  // The body as encode() writes it, in this message or rendered into the text handed in.
  std::string_view bodyBytes(JSONText& rendered) const;

  const char* bodyText_ = nullptr;     // points into rawBuffer_ or rawVector_
  std::unique_ptr<char[]> rawBuffer_;  // the received payload, header line cut off in place
  JSONPtr body_;                       // made at construction, or by getBody()
  std::vector<char> rawVector_;        // owns the payload instead of rawBuffer_ when not empty
  mutable std::string uniqueId_;       // cached copy of the body's "id"
  mutable JSONPtr view_;               // what viewBody() parsed
  bool decoded_ = true;
  std::size_t receivedBytes_ = 0;
};

}  // namespace valtor
