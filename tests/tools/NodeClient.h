#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/util/UniqueDescriptor.h"

namespace valtor::test {

// A participant on a plain socket: it writes the bytes it is told to and cuts what comes into
// payloads with a reader of its own.
class NodeClient {
 public:
  // Connects to 127.0.0.1; isOpen() tells whether that succeeded.
  explicit NodeClient(uint16_t port);

  bool isOpen() const { return socket_.valid(); }

  // All bytes, blocking; whether they went out.
  bool write(const std::string& bytes);
  // The payload in a frame.
  bool send(const std::string& payload);
  bool login(const std::string& name, int connID, const std::string& more = "");
  bool subscribe(const std::vector<std::string>& paths, bool receiveAll = false);

  // The next payload; none when the connection ended or 30 seconds passed. A frame that is not
  // exact to the byte (length, ":", payload, ";") is none either.
  std::optional<std::string> receive();
  // Whether bytes are waiting now.
  bool hasInput() const;

  enum class End { Closed, Reset, TimedOut };
  // Reads until the connection ends, and how it did.
  End waitForEnd();

  // Writes until the far end takes nothing for a while; false when it took all of the bytes.
  bool fillsUp(std::size_t bytes);

 private:
  bool fillBuffer();

  UniqueDescriptor socket_;
  std::string buffer_;
};

}  // namespace valtor::test
