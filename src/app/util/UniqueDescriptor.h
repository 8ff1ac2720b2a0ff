#pragma once

#include <unistd.h>
#include <utility>

namespace valtor {

// Owns one file descriptor and closes it exactly once. Move-only. A close is never retried: after
// EINTR Linux has released the number already (close(2)).
class UniqueDescriptor {
 public:
  UniqueDescriptor() = default;
  explicit UniqueDescriptor(int descriptor) : descriptor_(descriptor) {}
  UniqueDescriptor(UniqueDescriptor&& other) noexcept : descriptor_(other.release()) {}
  UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  UniqueDescriptor(const UniqueDescriptor&) = delete;
  UniqueDescriptor& operator=(const UniqueDescriptor&) = delete;
  ~UniqueDescriptor() { reset(); }

  int get() const { return descriptor_; }
  bool valid() const { return descriptor_ >= 0; }
  // Hands the descriptor to the caller, who closes it from now on.
  int release() { return std::exchange(descriptor_, -1); }
  // Closes the descriptor held, if any, and takes another. Returns what close returned, else 0.
  int reset(int descriptor = -1) {
    const int old = std::exchange(descriptor_, descriptor);
    return old >= 0 ? ::close(old) : 0;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace valtor
