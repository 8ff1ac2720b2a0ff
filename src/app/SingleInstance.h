#pragma once

#include <string>
#include <utility>

#include "app/util/UniqueDescriptor.h"

namespace valtor {

// Keeps a second daemon from the machine: two of them feed each other every message without end. A
// name in the abstract namespace of local sockets (unix(7)) tells, which goes with its process and
// counts for one network namespace. Used by main, once, before anything touches the bus.
class SingleInstance {
 public:
  // The name holds for the machine, at most 100 bytes; tests take one of their own.
  explicit SingleInstance(std::string name = "valtor-remote") : name_(std::move(name)) {}

  // False when another daemon, of root or of this user, holds the name. A holder that is neither is
  // logged and ignored, and so is every failure but a taken name: no check is better than no
  // daemon. Waits for a second at most, while a holder is just coming or going, and does without
  // the name then.
  bool acquire();

 private:
  enum class Answer { Acquired, Held, Stranger, Unclear, Failed };

  Answer tryOnce();

  const std::string name_;
  UniqueDescriptor socket_;  // holds the name
};

}  // namespace valtor
