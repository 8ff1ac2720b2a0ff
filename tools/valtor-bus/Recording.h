#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

#include "valtor-bus/Output.h"

namespace valtor {

// A recording is a text file of JSON objects, one a line. The first line says what it is:
//
//   {"valtorRecording":1,"started":"2026-01-31T12:34:56.789+0100"}
//
// Every other line is a message: "offset", the seconds since the start, and the payload as it came,
// as "payload" when it is UTF-8 text, otherwise as "hex". Lines are whole on disk as they are
// written, so an interrupted recording can be replayed.

struct RecordedMessage {
  std::chrono::microseconds offset{0};
  std::string payload;
};

class RecordingWriter {
 public:
  enum class Existing { Keep, Overwrite };

  // Creates the file. Throws CommandFailure when it exists and is to be kept, or cannot be written.
  RecordingWriter(const std::string& path, Existing existing);

  // Throws CommandFailure when the line cannot be written.
  void add(const RecordedMessage& message);

 private:
  DataFile file_;
};

class RecordingReader {
 public:
  // Throws CommandFailure when the file cannot be read or is no recording.
  explicit RecordingReader(const std::string& path);

  // The next message, or none at the end. Throws CommandFailure with the line's number when it is
  // none.
  std::optional<RecordedMessage> next();
  // How much of the file has been read, 0 to 100.
  int percentRead() const;

 private:
  bool readLine(std::string& line);
  [[noreturn]] void refuse(const std::string& reason) const;

  std::string path_;
  std::ifstream file_;
  uint64_t size_ = 0;  // bytes
  uint64_t read_ = 0;
  std::size_t lineNumber_ = 0;
};

}  // namespace valtor
