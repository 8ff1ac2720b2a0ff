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
// written, so an interrupted recording can be replayed, and so can one that the disk had no room
// for.

struct RecordedMessage {
  std::chrono::microseconds offset{0};
  std::string payload;
};

class RecordingWriter {
 public:
  enum class Existing { Keep, Overwrite };

  // Creates the file. Throws CommandFailure when it exists and is to be kept, or cannot be written.
  RecordingWriter(const std::string& path, Existing existing);
  // Writes to the output, which has to outlive the writer.
  explicit RecordingWriter(Output& output);

  // Throws CommandFailure when the line cannot be written; a file then ends with the line before.
  void add(const RecordedMessage& message);

 private:
  void begin();
  void write(const std::string& line);

  std::string path_;
  std::optional<DataFile> file_;  // none: the output
  Output* output_ = nullptr;
  uint64_t size_ = 0;  // bytes in whole lines
};

class RecordingReader {
 public:
  // "-" is standard input. Throws CommandFailure when the file cannot be read or is no recording.
  explicit RecordingReader(const std::string& path);

  // The next message, or none at the end. Throws CommandFailure with the line's number when it is
  // none. Blank lines count for nothing, nor does an unfinished last line.
  std::optional<RecordedMessage> next();
  // Whether the end was an unfinished line: its writer was stopped.
  bool endedUnfinished() const { return unfinished_; }
  // Whether it can be read a second time.
  bool isOnDisk() const { return size_.has_value(); }
  // How much of the file has been read, such as "50 %"; "" when its size is not known.
  std::string progress() const;

 private:
  bool readLine(std::string& line);
  [[noreturn]] void refuse(const std::string& reason) const;

  std::string path_;
  std::ifstream file_;
  std::istream& input_;           // the file, or standard input
  std::optional<uint64_t> size_;  // bytes
  uint64_t read_ = 0;
  bool unfinished_ = false;
  std::size_t lineNumber_ = 0;
};

}  // namespace valtor
