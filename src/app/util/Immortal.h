#pragma once

#include <utility>

namespace valtor {

// Holds a value that is never destroyed: threads may still use it while the process exits and its
// static objects go. Only for static objects.
template <class T>
class Immortal {
 public:
  template <class... Arguments>
  explicit Immortal(Arguments&&... arguments)
      : value_(new T(std::forward<Arguments>(arguments)...)) {}  // NOLINT(*-owning-memory)
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;

  T& operator*() { return *value_; }

 private:
  T* const value_;
};

}  // namespace valtor
