#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <asio.hpp>

#include "bus/message/PellInternalStreamParser.h"
#include "message-node/Subscriptions.h"

namespace valtor {

// One accepted connection of a message node: it reads frames and hands their messages to its owner,
// and writes frames from a queue of its own, so that a slow reader holds up nobody else. It also
// holds what the participant said about itself. Shared by the node's list and the operations that
// are under way; used on the node's loop only. A connection that ends, however it ends, tells its
// owner once.
class NodeConnection : public std::enable_shared_from_this<NodeConnection> {
 public:
  class Owner {
   public:
    virtual void onMessage(NodeConnection& connection, const PellInternalMessage& message) = 0;
    virtual void onClosed(NodeConnection& connection, const std::string& reason) = 0;

   protected:
    ~Owner() = default;
  };

  enum class Ending { Close, Reset };

  // More unsent bytes than the limit end the connection. The owner outlives it.
  NodeConnection(asio::ip::tcp::socket socket, uint64_t number, std::size_t unsentLimit,
                 Owner& owner);

  void start();
  // Queues bytes, usually one whole frame, and writes what the socket takes.
  void send(std::shared_ptr<const std::string> bytes);
  // Drops what is unsent. Reset makes the peer see a reset connection instead of an end.
  void close(const std::string& reason, Ending ending = Ending::Close);

  // While paused not one byte is read, or written.
  void setReadingPaused(bool paused);
  void setWritingPaused(bool paused);

  // The name of the login, or "#" and the number before it.
  std::string displayName() const;
  const std::string& address() const { return address_; }
  uint64_t number() const { return number_; }
  std::size_t unsentBytes() const { return unsentBytes_; }

  std::string name;           // of the login; empty before it
  int32_t connID = 0;         // of the login
  std::string interfaceText;  // the login's "interface" as compact JSON, empty when it had none
  Subscriptions subscriptions;
  uint64_t messagesReceived = 0;

 private:
  void waitForInput();
  void readInput();
  void writeQueue();
  void waitForRoom();
  void dropWritten(std::size_t count);

  asio::ip::tcp::socket socket_;
  const uint64_t number_;
  const std::size_t unsentLimit_;
  Owner& owner_;
  std::string address_;
  PellInternalStreamParser parser_;
  std::vector<char> readBuffer_;
  std::deque<std::shared_ptr<const std::string>> queue_;
  std::size_t frontWritten_ = 0;  // bytes of the queue's first entry that are written
  std::size_t unsentBytes_ = 0;
  bool waitingForInput_ = false;
  bool waitingForRoom_ = false;
  bool readingPaused_ = false;
  bool writingPaused_ = false;
};

}  // namespace valtor
