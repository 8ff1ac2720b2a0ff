#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "bus/message/PellInternalMessage.h"
#include "message-node/Subscriptions.h"

namespace valtor {

// A message that passed through a node.
struct PassedMessage {
  std::shared_ptr<const std::string> payload;  // header line, line feed, body
  MessageKind kind = MessageKind::Unknown;
  std::string path;
  int32_t source = 0;
  int32_t destination = 0;
  std::string from;             // who sent it: a name, "#" and a number before a login, or "node"
  std::vector<std::string> to;  // who got it, one entry a connection; "node" when the node took it

  std::string_view body() const;
};

// One connection of a node, as it stood when it was asked for.
struct NodeParticipant {
  uint64_t number = 0;  // of the connection, counted from 1
  std::string name;     // of the login; empty before it
  int32_t connID = 0;
  std::string address;  // "IPv4:port" of the far end
  std::vector<NodeSubscription> subscriptions;
  std::string interfaceText;  // the login's "interface" as compact JSON; empty when it had none
  std::size_t unsentBytes = 0;
  uint64_t messagesReceived = 0;
};

// A stand-in for the message node of a controller or a remote router. It accepts connections, reads
// frames, learns name and connection id of each connection at its login, keeps subscription lists
// and hands every message on, as the bytes that came:
//
//  - with a destination id: to every connection that logged in with that id, and to subscribers
//    with "receiveAll" whose list covers the path;
//  - without: to the subscribers whose list covers the path;
//  - never back to the connection it came from, and to each other one once.
//
// It takes logins, subscription lists ("SET" on "system.connection") and keep-alives ("SET" with an
// empty path, answered with an "ACK") for itself. It answers a "GET" for "mdxMasterState" with its
// role, announces a change of role with a "SET" on "system", and takes over the role that a
// participant announces. It may answer for participants behind it (CannedAnswers). Broken frames
// are logged by the stream parser and never end anything.
//
// One thread calls run(), which is the node's only thread. While it runs any other thread may call
// the control operations: they are carried out between two events of the loop, and have been when
// they return. Before run() and after it has returned they work on the caller's thread. Callbacks
// run on the loop; they may call control operations.
class MessageNode {
 public:
  // The connection id in which the node itself speaks.
  static constexpr int32_t kNodeConnID = 1;
  // The name for every connection, current or to come, in the operations that take a name.
  static constexpr const char* kEveryone = "*";

  struct Options {
    std::string address = "127.0.0.1";
    uint16_t port = 0;  // 0: any free one, see MessageNode::port()
    std::string role = "active";
    std::string answers;                                      // JSON of CannedAnswers; empty: none
    int32_t answerConnID = 100;                               // the source of these answers
    std::size_t unsentLimit = std::size_t{64} * 1024 * 1024;  // bytes, for each connection
    // Every message that passes, before it is sent on.
    std::function<void(const PassedMessage&)> onMessage;
    // Whatever else happens, as one line without a line feed: "ACCEPT", "LOGIN", "SUBSCRIBE",
    // "CLOSE", "ROLE", "LISTEN" and what they are about.
    std::function<void(const std::string&)> onEvent;
  };

  // Opens no socket. Throws std::runtime_error when the answers are wrong.
  explicit MessageNode(Options options);
  ~MessageNode();
  MessageNode(const MessageNode&) = delete;
  MessageNode& operator=(const MessageNode&) = delete;

  // Serves until stop(). Connections stay open when it returns, and are served on when it is called
  // again.
  void run();
  // Starts a thread that does so, and returns once it does: an operation that is called before
  // run() has begun would be carried out beside it.
  std::thread runOnThread();
  // Makes run() return. Any thread, any time.
  void stop();

  // Binds (with SO_REUSEADDR) and listens; the first time at the port of the options, afterwards at
  // the port it had. Does nothing while it listens.
  std::error_code startListening();
  // New connections are refused from now on; accepted ones stay.
  void stopListening();
  // The port, also while the node does not listen; 0 before the first startListening().
  uint16_t port() const;

  // Stores the role and announces it, also when it is the same.
  void setRole(const std::string& role);
  std::string role();

  // Replaces the canned answers. Throws std::runtime_error when they are wrong.
  void setAnswers(const std::string& jsonText);

  // Calls the function on the loop when the time has passed; never when the node is gone before.
  void runAfter(std::chrono::milliseconds time, std::function<void()> function);

  // Hands a message on as if a participant had sent it that logged in with the source id on a
  // connection of its own. The body travels as it is. False when the header is none that a reader
  // accepts.
  bool inject(int32_t source, const std::string& kind, const std::string& path, int32_t destination,
              const std::string& body);
  // The same with a whole payload.
  bool injectPayload(const std::string& payload);
  // Writes bytes to every connection of the name, unframed. How many there were.
  std::size_t writeRaw(const std::string& name, const std::string& bytes);

  // Ends every connection of the name as if it had been cut. How many there were.
  std::size_t closeConnections(const std::string& name);
  // The same with a reset.
  std::size_t resetConnections(const std::string& name);

  // While reading is paused the node plays a peer that does not read, while writing is paused a
  // silent one. Holds for every connection of the name, present and future. Everyone takes the
  // place of what was said about single names before; a name after that is an exception.
  void setReadingPaused(const std::string& name, bool paused);
  void setWritingPaused(const std::string& name, bool paused);

  // In the order of their arrival.
  std::vector<NodeParticipant> participants();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace valtor
