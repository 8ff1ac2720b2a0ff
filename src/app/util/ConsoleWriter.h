#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "app/util/UniqueDescriptor.h"

namespace valtor {

// Writes a trace to a descriptor and never waits for its reader: what a pipe, a terminal or a local
// socket has no room for is left out, and once there is room again a line says how much that was.
// What is left out ends with a whole line. A file takes everything; its disk may take its time.
//
// One thread at a time. The descriptor is not owned and has to stay open; SIGPIPE has to be
// ignored.
class ConsoleWriter {
 public:
  explicit ConsoleWriter(int descriptor);

  void write(std::string_view text);

 private:
  std::size_t writePiece(std::string_view text) const;
  void drop(std::string_view text);
  bool sayHowMuch();

  const int descriptor_;
  bool isSocket_ = false;
  // A description of our own behind the descriptor, since "non-blocking" belongs to the
  // description: set on the given one it would reach every process that shares it, a shell for one.
  // Not valid where there is none.
  UniqueDescriptor own_;
  uint64_t dropped_ = 0;     // bytes left out since the last line about it
  bool atLineStart_ = true;  // whether what was left out last ended a line
};

}  // namespace valtor
