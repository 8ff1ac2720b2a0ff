#include "valtor-bus/Recording.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <filesystem>
#include <iostream>

#include "app/util/ErrnoText.h"
#include "app/util/OwnedJSON.h"
#include "support/CommandFailure.h"
#include "support/HexText.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-bus/MessageText.h"

namespace valtor {
namespace {

constexpr const char* kFormatKey = "valtorRecording";
constexpr double kMicroseconds = 1e6;
constexpr double kLongestOffset = 1e9;  // seconds

std::optional<std::string> payloadOfLine(const std::string& line) {
  // Not from a tree: its strings end at a "\u0000".
  const std::string text = memberOfJSON(line, "payload");
  return !text.empty() ? textOfJSON(text) : bytesOfHex(textOfJSON(memberOfJSON(line, "hex")));
}

}  // namespace

RecordingWriter::RecordingWriter(const std::string& path, Existing existing) : path_(path) {
  file_ = DataFile(std::fopen(path.c_str(), existing == Existing::Keep ? "wxe" : "we"), path);
  if (!file_->isOpen()) {
    throw CommandFailure(
        ExitCode::Refused, "cannot create " + path + ": " + errnoText(errno),
        errno == EEXIST ? "Choose another name, or replace it with --overwrite." : "");
  }
  begin();
}

RecordingWriter::RecordingWriter(Output& output) : output_(&output) { begin(); }

void RecordingWriter::begin() {
  write(std::string("{\"") + kFormatKey + "\":1,\"started\":\"" +
        fullTime(std::chrono::system_clock::now()) + "\"}\n");
}

void RecordingWriter::write(const std::string& line) {
  if (output_ != nullptr) {
    output_->write(line);
    return;
  }
  try {
    file_->write(line);
    size_ += line.size();
  } catch (const CommandFailure&) {
    file_.reset();  // which tries to write the rest again
    std::error_code ignored;
    std::filesystem::resize_file(path_, size_, ignored);
    throw;
  }
}

void RecordingWriter::add(const RecordedMessage& message) {
  const int64_t microseconds = message.offset.count();
  std::array<char, 40> offset{};
  std::snprintf(offset.data(), offset.size(), "%" PRId64 ".%06" PRId64, microseconds / 1000000,
                microseconds % 1000000);
  const bool isText = withoutBrokenUtf8(message.payload) == message.payload;
  write(std::string("{\"offset\":") + offset.data() +
        (isText ? ",\"payload\":" + quotedJSON(message.payload)
                : ",\"hex\":\"" + hexText(message.payload) + "\"") +
        "}\n");
}

RecordingReader::RecordingReader(const std::string& path)
    : path_(path == "-" ? "standard input" : path), input_(path == "-" ? std::cin : file_) {
  std::error_code unknown;
  if (path != "-") {
    file_.open(path, std::ios::binary);
    const bool isFolder = std::filesystem::is_directory(path, unknown);
    if (!file_ || isFolder) {
      throw CommandFailure(ExitCode::Refused,
                           "cannot read " + path_ + ": " + errnoText(isFolder ? EISDIR : errno));
    }
    if (std::filesystem::is_regular_file(path, unknown)) {
      size_ = std::filesystem::file_size(path, unknown);
    }
  }
  std::string line;
  const OwnedJSON first = parseJSON(readLine(line) ? line : "");
  const cJSON* version = cJSON_GetObjectItem(first.get(), kFormatKey);
  if (!cJSON_IsNumber(version) || version->valueint != 1) {
    throw CommandFailure(ExitCode::Refused, path_ + " is no recording of this program",
                         "Make one with: valtor-bus record FILE");
  }
}

std::optional<RecordedMessage> RecordingReader::next() {
  std::string text;
  do {
    if (!readLine(text)) {
      return std::nullopt;
    }
  } while (text.empty());
  const std::string line = compactJSON(text).value_or("");
  if (line.empty() && input_.eof() && text.front() == '{') {
    unfinished_ = true;
    return std::nullopt;
  }
  const OwnedJSON tree = parseJSON(line);
  const cJSON* offset = cJSON_GetObjectItem(tree.get(), "offset");
  std::optional<std::string> payload = payloadOfLine(line);
  if (!cJSON_IsNumber(offset) || !(offset->valuedouble >= 0) ||
      offset->valuedouble > kLongestOffset || !payload || payload->empty()) {
    refuse("is no recorded message");
  }
  RecordedMessage message;
  message.offset = std::chrono::microseconds(std::llround(offset->valuedouble * kMicroseconds));
  message.payload = std::move(*payload);
  return message;
}

std::string RecordingReader::progress() const {
  return size_ && *size_ > 0 ? std::to_string(std::min(read_, *size_) * 100 / *size_) + " %" : "";
}

bool RecordingReader::readLine(std::string& line) {
  if (!std::getline(input_, line)) {
    if (input_.bad()) {
      throw CommandFailure(ExitCode::Refused, "cannot read " + path_ + ": " + errnoText(errno));
    }
    return false;
  }
  ++lineNumber_;
  read_ += line.size() + 1;
  return true;
}

void RecordingReader::refuse(const std::string& reason) const {
  throw CommandFailure(ExitCode::Refused,
                       path_ + ", line " + std::to_string(lineNumber_) + ", " + reason);
}

}  // namespace valtor
