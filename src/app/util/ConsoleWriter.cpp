#include "app/util/ConsoleWriter.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace valtor {

ConsoleWriter::ConsoleWriter(int descriptor) : descriptor_(descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) {
    return;
  }
  isSocket_ = S_ISSOCK(status.st_mode);
  // Not of a file: it would have a position of its own.
  if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    own_.reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  }
}

void ConsoleWriter::write(std::string_view text) {
  if (dropped_ > 0) {
    // Goes on with a new line only.
    const std::size_t rest = atLineStart_ ? 0 : std::min(text.find('\n'), text.size() - 1) + 1;
    drop(text.substr(0, rest));
    text.remove_prefix(rest);
    if (text.empty() || !sayHowMuch()) {
      drop(text);
      return;
    }
  }
  while (!text.empty()) {
    const std::size_t count = writePiece(text);
    if (count == 0) {
      drop(text);
      return;
    }
    text.remove_prefix(count);
  }
}

void ConsoleWriter::drop(std::string_view text) {
  if (!text.empty()) {
    dropped_ += text.size();
    atLineStart_ = text.back() == '\n';
  }
}

bool ConsoleWriter::sayHowMuch() {
  char note[96] = "";
  const int length =
      std::snprintf(note, sizeof note, "\n%llu bytes of the trace are missing: nobody read them.\n",
                    static_cast<unsigned long long>(dropped_));
  if (writePiece({note, static_cast<std::size_t>(length)}) == 0) {
    return false;
  }
  dropped_ = 0;
  return true;
}

// How much of the text was taken; 0 when there is no room, and all of it when it cannot be written
// at all.
std::size_t ConsoleWriter::writePiece(std::string_view text) const {
  ssize_t count = 0;
  do {
    if (isSocket_) {
      count = send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (own_.valid()) {
      count = ::write(own_.get(), text.data(), text.size());
    } else {
      // A file is always ready. Something else may lie behind a descriptor that cannot be opened
      // again: what is ready takes a little at least (pipe(7), "PIPE_BUF").
      pollfd entry{descriptor_, POLLOUT, 0};
      if (poll(&entry, 1, 0) == 0) {
        return 0;
      }
      count = ::write(descriptor_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    }
  } while (count < 0 && errno == EINTR);
  if (count < 0 && errno == EAGAIN) {
    return 0;
  }
  return count > 0 ? static_cast<std::size_t>(count) : text.size();
}

}  // namespace valtor
