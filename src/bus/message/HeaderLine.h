#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "app/util/OwnedJSON.h"

namespace valtor {

// The first line of every message and what stands in it. Pure functions and values: any thread.

// The kinds of bus messages. The number is the index in the table of names; the name is what
// travels.
enum class MessageKind : int32_t {
  CMD = 0,
  CMDRSP = 1,
  CMDNOT = 2,
  RSP = 3,
  NOT = 4,
  ACK = 5,
  NAK = 6,
  GET = 7,
  SET = 8,
  DEL = 9,
  UPDATE = 10,
  Unknown = 11,
};

// The name of a kind; "" for Unknown and for anything outside the table.
const char* kindName(MessageKind kind);
// The kind of a name, compared exactly; Unknown when no kind has it.
MessageKind kindFromName(std::string_view name);

// Whether a path can be written. It is written without escaping, so one that needs escapes would
// leave as another message than the one that was looked at.
bool isPlainPath(std::string_view path);
// Whether who listens to the pattern gets what goes to the path: the pattern is that path, or ends
// in "*" and the path begins like it.
bool coversPath(std::string_view pattern, std::string_view path);
// The parts of a path between "."; a path without one is its own only part.
std::vector<std::string> elementsOfPath(const std::string& path);

// What a message says about itself before its body.
class PellInternalHeader {
 public:
  virtual ~PellInternalHeader() = default;
  PellInternalHeader() = default;
  PellInternalHeader(const PellInternalHeader&) = default;
  PellInternalHeader(PellInternalHeader&&) = default;
  PellInternalHeader& operator=(const PellInternalHeader&) = default;
  PellInternalHeader& operator=(PellInternalHeader&&) = default;

  bool isScheduled() const { return scheduledTime.tv_sec != 0 || scheduledTime.tv_nsec != 0; }

  MessageKind kind = MessageKind::Unknown;
  int32_t sourceConnID = 0;  // sender's connection id as received; sending leaves it as it is
  int32_t destConnID = 0;    // connection id of the addressee; 0 for requests and notifications
  std::string path;          // the object path, such as "system.connection"
  timespec scheduledTime{};  // both parts 0: not scheduled
  std::vector<std::string> pathElements;  // filled by PellInternalMessage::splitPath
  std::string sourceName;                 // text after "@" of a string-valued source element
  std::string destName;                   // the same of the destination element
};

// The elements of a received header line, each null where the line has fewer, all of them when it
// is no JSON array or not worth parsing: none longer than 255 characters is ever written, so one of
// a megabyte would only cost memory, and a NUL spelled out would cut the path short.
class HeaderElements {
 public:
  explicit HeaderElements(const std::string& line);

  const cJSON* kind = nullptr;
  const cJSON* path = nullptr;
  const cJSON* source = nullptr;
  const cJSON* destination = nullptr;
  const cJSON* schedule = nullptr;

 private:
  JSONPtr tree_;
};

// A header line as it is written: ["KIND", "path", source, destination, schedule] and a line feed.
class HeaderLine {
 public:
  static constexpr std::size_t kLongest = 255;  // characters, the line feed included

  // The line of this header with this source connection id in it, cut at kLongest.
  HeaderLine(const PellInternalHeader& header, int32_t sourceConnID);

  // Valid as long as this object.
  std::string_view text() const { return {text_.data(), size_}; }
  // A line that is cut has lost its line feed: nobody understands the message.
  bool isCut() const { return isCut_; }

  // Reads a received line, without its line feed, into a fresh header; false when it breaks a rule.
  // The kind is stored as soon as it is known, everything else only when the whole line is good. A
  // schedule time that is taken is logged.
  static bool decode(std::string_view line, PellInternalHeader& header);

 private:
  void append(std::string_view text);
  void append(int32_t number);

  std::array<char, kLongest> text_;
  std::size_t size_ = 0;
  bool isCut_ = false;
};

}  // namespace valtor
