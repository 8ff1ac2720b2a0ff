#include "message-node/MessageNode.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <utility>

#include <asio.hpp>

#include "app/util/Mutex.h"
#include "bus/message/PellInternalStreamParser.h"
#include "message-node/CannedAnswers.h"
#include "message-node/NodeConnection.h"

namespace valtor {

namespace {

constexpr const char* kNodeName = "node";
constexpr const char* kRoleMember = "mdxMasterState";
// How long a node that cannot accept (out of descriptors) waits before it tries again.
constexpr std::chrono::milliseconds kAcceptRetry{100};

// Lets one thread wait until another has carried something out.
class Completion {
 public:
  void signal() {
    const Locked<Mutex> lock(mutex_);
    done_ = true;
    changed_.notify_all();
  }
  void wait() {
    const Locked<Mutex> lock(mutex_);
    while (!done_) {
      changed_.wait(mutex_);
    }
  }

 private:
  Mutex mutex_;
  std::condition_variable_any changed_;
  bool done_ VALTOR_GUARDED_BY(mutex_) = false;
};

// The names that a pause holds for: those listed, or everyone but those listed.
class PausedNames {
 public:
  void set(const std::string& name, bool paused) {
    if (name == MessageNode::kEveryone) {
      everyone_ = paused;
      exceptions_.clear();
    } else if (paused == everyone_) {
      exceptions_.erase(name);
    } else {
      exceptions_.insert(name);
    }
  }
  bool include(const std::string& name) const { return everyone_ != (exceptions_.count(name) > 0); }

 private:
  bool everyone_ = false;
  std::set<std::string> exceptions_;
};

void addRole(PellInternalMessage& message, const std::string& role) {
  JSONPtr param(cJSON_CreateObject());
  cJSON_AddStringToObject(param.get(), kRoleMember, role.c_str());
  addMember(message.getBody(), "param", std::move(param));
}

// Its identifier names the node: a stand-in has no hardware address to take one from.
PellInternalMessage roleMessage(const std::string& role) {
  static std::atomic<unsigned> count{0};
  PellInternalMessage message(MessageKind::SET, "system", 0,
                              std::to_string(++count) + "@node." + std::to_string(getpid()));
  addRole(message, role);
  return message;
}

PellInternalMessage roleAnswer(const PellInternalMessage& request, const std::string& role) {
  PellInternalMessage answer(MessageKind::RSP, "system", request.header.sourceConnID,
                             request.getUniqueId());
  addRole(answer, role);
  return answer;
}

}  // namespace

std::string_view PassedMessage::body() const {
  const std::string_view text = *payload;
  const std::size_t lineEnd = text.find('\n');
  return lineEnd == std::string_view::npos ? std::string_view() : text.substr(lineEnd + 1);
}

class MessageNode::Impl final : public NodeConnection::Owner {
 public:
  explicit Impl(Options options)
      : options_(std::move(options)),
        role_(options_.role),
        acceptor_(loop_),
        acceptTimer_(loop_),
        port_(0) {
    if (!options_.answers.empty()) {
      answers_ = CannedAnswers(options_.answers);
    }
  }

  void run() {
    {
      const Locked<Mutex> lock(runLock_);
      loopThread_ = std::this_thread::get_id();
      running_ = true;
    }
    const auto work = asio::make_work_guard(loop_);
    loop_.run();
    // One by one: a timer that is due again each time would make poll() endless.
    do {
      loop_.restart();
      loop_.poll_one();
    } while (!becomeIdle());
  }

  void stop() { loop_.stop(); }

  // Carries the function out on the loop and waits for that; on the caller's thread when that is
  // the loop's, or when nobody runs the loop. The function must not throw.
  void perform(const std::function<void()>& function) {
    Completion completion;
    if (!postToLoop([&] {
          function();
          completion.signal();
        })) {
      function();
      return;
    }
    completion.wait();
  }

  std::error_code startListening() {
    if (acceptor_.is_open()) {
      return {};
    }
    asio::error_code error;
    const auto address = asio::ip::make_address_v4(options_.address, error);
    if (!error) {
      const uint16_t port = port_ != 0 ? port_.load() : options_.port;
      openAcceptor(asio::ip::tcp::endpoint(address, port), error);
    }
    if (error) {
      asio::error_code ignored;
      acceptor_.close(ignored);
      return {error.value(), std::system_category()};
    }
    port_ = acceptor_.local_endpoint(error).port();
    event("LISTEN " + options_.address + ":" + std::to_string(port_) + " role=" + role_);
    acceptNext();
    return {};
  }

  void stopListening() {
    asio::error_code ignored;
    acceptTimer_.cancel();
    acceptor_.close(ignored);
  }

  uint16_t port() const { return port_; }

  void setRole(const std::string& role) {
    role_ = role;
    event("ROLE " + role_);
    sendAsNode(roleMessage(role_), kNodeConnID, nullptr);
  }
  const std::string& role() const { return role_; }

  void setAnswers(CannedAnswers answers) { answers_ = std::move(answers); }

  void runAfter(std::chrono::milliseconds time, std::function<void()> function) {
    const auto timer = std::make_shared<asio::steady_timer>(loop_, time);
    timer->async_wait([timer, function = std::move(function)](const asio::error_code& error) {
      if (!error) {
        function();
      }
    });
  }

  bool injectPayload(const std::string& payload) {
    std::vector<char> bytes(payload.begin(), payload.end());
    bytes.push_back('\0');
    try {
      const PellInternalMessage message(std::move(bytes));
      if (message.header.sourceConnID < 0 || message.header.destConnID < 0) {
        return false;
      }
      handle(message, nullptr);
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  std::size_t writeRaw(const std::string& name, const std::string& bytes) {
    const auto shared = std::make_shared<const std::string>(bytes);
    return forEachNamed(name, [&](NodeConnection& connection) { connection.send(shared); });
  }

  std::size_t closeConnections(const std::string& name, NodeConnection::Ending ending) {
    return forEachNamed(
        name, [&](NodeConnection& connection) { connection.close("closed by the node", ending); });
  }

  void setReadingPaused(const std::string& name, bool paused) {
    readingPaused_.set(name, paused);
    applyPauses();
  }

  void setWritingPaused(const std::string& name, bool paused) {
    writingPaused_.set(name, paused);
    applyPauses();
  }

  std::vector<NodeParticipant> participants() const {
    std::vector<NodeParticipant> list;
    for (const auto& [number, connection] : connections_) {
      NodeParticipant& one = list.emplace_back();
      one.number = number;
      one.name = connection->name;
      one.connID = connection->connID;
      one.address = connection->address();
      one.subscriptions = connection->subscriptions.entries();
      one.interfaceText = connection->interfaceText;
      one.unsentBytes = connection->unsentBytes();
      one.messagesReceived = connection->messagesReceived;
    }
    return list;
  }

 private:
  using Recipients = std::vector<std::shared_ptr<NodeConnection>>;

  bool postToLoop(std::function<void()> function) {
    const Locked<Mutex> lock(runLock_);
    if (!running_ || loopThread_ == std::this_thread::get_id()) {
      return false;
    }
    ++waitingCalls_;
    asio::post(loop_, [this, function = std::move(function)] {
      function();
      const Locked<Mutex> counting(runLock_);
      --waitingCalls_;
    });
    return true;
  }

  // From true on, control operations work on their callers' threads. False while there are some
  // that were handed to the loop.
  bool becomeIdle() {
    const Locked<Mutex> lock(runLock_);
    running_ = waitingCalls_ > 0;
    return !running_;
  }

  void openAcceptor(const asio::ip::tcp::endpoint& endpoint, asio::error_code& error) {
    acceptor_.open(endpoint.protocol(), error);
    if (!error) {
      acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true), error);
    }
    if (!error) {
      acceptor_.bind(endpoint, error);
    }
    if (!error) {
      acceptor_.listen(asio::socket_base::max_listen_connections, error);
    }
  }

  void acceptNext() {
    acceptor_.async_accept([this](const asio::error_code& error, asio::ip::tcp::socket socket) {
      if (error == asio::error::operation_aborted || !acceptor_.is_open()) {
        return;
      }
      if (error) {
        event("ACCEPT failed: " + error.message());
        acceptTimer_.expires_after(kAcceptRetry);
        acceptTimer_.async_wait([this](const asio::error_code& cancelled) {
          if (!cancelled && acceptor_.is_open()) {
            acceptNext();
          }
        });
        return;
      }
      accepted(std::move(socket));
      acceptNext();
    });
  }

  void accepted(asio::ip::tcp::socket socket) {
    const uint64_t number = ++lastNumber_;
    const auto connection =
        std::make_shared<NodeConnection>(std::move(socket), number, options_.unsentLimit, *this);
    connections_.emplace(number, connection);
    event("ACCEPT #" + std::to_string(number) + " from=" + connection->address());
    applyPauses(*connection);
    connection->start();
  }

  void onMessage(NodeConnection& connection, const PellInternalMessage& message) override {
    handle(message, &connection);
  }

  void onClosed(NodeConnection& connection, const std::string& reason) override {
    event("CLOSE " + label(connection) + " " + reason);
    connections_.erase(connection.number());
  }

  // The connection is none for an injected message.
  void handle(const PellInternalMessage& message, NodeConnection* from) {
    const PellInternalHeader& header = message.header;
    if (header.kind == MessageKind::SET && header.path == "system.connection") {
      report(message, senderName(message, from), {kNodeName});
      takeConnectionSettings(message, from);
      return;
    }
    if (header.kind == MessageKind::SET && header.path.empty()) {
      report(message, senderName(message, from), {kNodeName});
      const PellInternalMessage acknowledgement(MessageKind::ACK, "", header.sourceConnID,
                                                message.getUniqueId());
      if (from != nullptr) {
        deliver(acknowledgement, acknowledgement.encodeFrom(kNodeConnID), kNodeName,
                {from->shared_from_this()}, kNodeConnID);
      }
      return;
    }
    takeRole(message);
    deliver(message, message.receivedText(), senderName(message, from), recipients(message, from));
    answer(message, from);
  }

  void takeConnectionSettings(const PellInternalMessage& message, NodeConnection* from) {
    if (from == nullptr) {
      return;
    }
    const cJSON* param = cJSON_GetObjectItem(message.viewBody(), "param");
    if (const cJSON* login = cJSON_GetObjectItem(param, "login"); cJSON_IsObject(login)) {
      takeLogin(*from, login, cJSON_GetObjectItem(param, "interface"));
    }
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, arrayMember(param, "subscribeList")) {
      if (const char* path = stringMember(entry, "path"); path != nullptr) {
        const bool receiveAll = cJSON_IsTrue(cJSON_GetObjectItem(entry, "receiveAll")) != 0;
        from->subscriptions.add({path, receiveAll});
        event("SUBSCRIBE " + label(*from) + " path=" + path +
              (receiveAll ? " receiveAll=true" : " receiveAll=false"));
      }
    }
  }

  void takeLogin(NodeConnection& connection, const cJSON* login, const cJSON* interfaces) {
    const char* name = stringMember(login, "name");
    const cJSON* connID = cJSON_GetObjectItem(login, "connID");
    connection.name = name != nullptr ? name : "";
    connection.connID = cJSON_IsNumber(connID) ? connID->valueint : 0;
    connection.interfaceText = printJSON(interfaces, false);
    event("LOGIN " + label(connection) + " id=" + std::to_string(connection.connID) +
          (interfaces != nullptr ? " interface=" + connection.interfaceText : ""));
    applyPauses(connection);
  }

  // A role that a participant announces reaches the subscribers as the message it came in.
  void takeRole(const PellInternalMessage& message) {
    const PellInternalHeader& header = message.header;
    if (header.kind != MessageKind::SET || header.path != "system" ||
        (header.destConnID != 0 && header.destConnID != kNodeConnID)) {
      return;
    }
    const cJSON* param = cJSON_GetObjectItem(message.viewBody(), "param");
    if (const char* role = stringMember(param, kRoleMember); role != nullptr) {
      role_ = role;
      event("ROLE " + role_);
    }
  }

  void answer(const PellInternalMessage& request, NodeConnection* from) {
    const int32_t asked = request.header.destConnID;
    if (request.header.kind == MessageKind::GET && request.header.path == "system" &&
        (asked == 0 || asked == kNodeConnID) && requestNamesObject(request, kRoleMember)) {
      sendAsNode(roleAnswer(request, role_), kNodeConnID, from);
    }
    if (asked == 0 || asked == options_.answerConnID) {
      if (const auto canned = answers_.answerTo(request)) {
        sendAsNode(*canned, options_.answerConnID, from);
      }
    }
  }

  // A message of the node's own. One without an addressee that answers a connection which has no
  // connection id goes to that connection.
  void sendAsNode(const PellInternalMessage& message, int32_t source, NodeConnection* asking) {
    Recipients to;
    if (asking != nullptr && message.header.destConnID == 0) {
      to.push_back(asking->shared_from_this());
    } else {
      to = recipients(message, nullptr);
    }
    deliver(message, message.encodeFrom(source), kNodeName, to, source);
  }

  Recipients recipients(const PellInternalMessage& message, const NodeConnection* from) const {
    const std::string& path = message.header.path;
    const int32_t destination = message.header.destConnID;
    Recipients found;
    for (const auto& [number, connection] : connections_) {
      const bool wanted = destination == 0 ? connection->subscriptions.covers(path)
                                           : connection->connID == destination ||
                                                 connection->subscriptions.coversForOthers(path);
      if (wanted && connection.get() != from) {
        found.push_back(connection);
      }
    }
    return found;
  }

  void deliver(const PellInternalMessage& message, std::string payload, const std::string& from,
               const Recipients& to, std::optional<int32_t> source = std::nullopt) {
    std::vector<std::string> names;
    for (const auto& connection : to) {
      names.push_back(connection->displayName());
    }
    const auto bytes = std::make_shared<const std::string>(frame(payload));
    if (options_.onMessage) {
      PassedMessage passed = describe(message, from, std::move(names));
      passed.payload = std::make_shared<const std::string>(std::move(payload));
      passed.source = source.value_or(message.header.sourceConnID);
      options_.onMessage(passed);
    }
    for (const auto& connection : to) {
      connection->send(bytes);
    }
  }

  void report(const PellInternalMessage& message, const std::string& from,
              std::vector<std::string> to) {
    if (options_.onMessage) {
      PassedMessage passed = describe(message, from, std::move(to));
      passed.payload = std::make_shared<const std::string>(message.receivedText());
      options_.onMessage(passed);
    }
  }

  static PassedMessage describe(const PellInternalMessage& message, const std::string& from,
                                std::vector<std::string> to) {
    PassedMessage passed;
    passed.kind = message.header.kind;
    passed.path = message.header.path;
    passed.source = message.header.sourceConnID;
    passed.destination = message.header.destConnID;
    passed.from = from;
    passed.to = std::move(to);
    return passed;
  }

  static std::string senderName(const PellInternalMessage& message, const NodeConnection* from) {
    return from != nullptr ? from->displayName()
                           : "participant-" + std::to_string(message.header.sourceConnID);
  }

  static std::string label(const NodeConnection& connection) {
    const std::string number = "#" + std::to_string(connection.number());
    return connection.name.empty() ? number : number + " name=" + connection.name;
  }

  std::size_t forEachNamed(const std::string& name,
                           const std::function<void(NodeConnection&)>& function) {
    Recipients named;  // the function may end connections
    for (const auto& [number, connection] : connections_) {
      if (name == kEveryone || connection->name == name) {
        named.push_back(connection);
      }
    }
    for (const auto& connection : named) {
      function(*connection);
    }
    return named.size();
  }

  void applyPauses() {
    forEachNamed(kEveryone, [this](NodeConnection& connection) { applyPauses(connection); });
  }

  void applyPauses(NodeConnection& connection) const {
    connection.setReadingPaused(readingPaused_.include(connection.name));
    connection.setWritingPaused(writingPaused_.include(connection.name));
  }

  void event(const std::string& line) const {
    if (options_.onEvent) {
      options_.onEvent(line);
    }
  }

  const Options options_;
  CannedAnswers answers_;
  std::string role_;
  asio::io_context loop_{1};
  asio::ip::tcp::acceptor acceptor_;
  asio::steady_timer acceptTimer_;
  std::atomic<uint16_t> port_;
  std::map<uint64_t, std::shared_ptr<NodeConnection>> connections_;  // by number
  uint64_t lastNumber_ = 0;
  PausedNames readingPaused_;
  PausedNames writingPaused_;

  Mutex runLock_;
  bool running_ VALTOR_GUARDED_BY(runLock_) = false;
  int waitingCalls_ VALTOR_GUARDED_BY(runLock_) = 0;  // handed to the loop, not carried out yet
  std::thread::id loopThread_ VALTOR_GUARDED_BY(runLock_);
};

MessageNode::MessageNode(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
MessageNode::~MessageNode() = default;

void MessageNode::run() { impl_->run(); }
std::thread MessageNode::runOnThread() {
  const auto begun = std::make_shared<std::promise<void>>();
  runAfter(std::chrono::milliseconds(0), [begun] { begun->set_value(); });
  std::thread thread([this] { run(); });
  begun->get_future().wait();
  return thread;
}
void MessageNode::stop() { impl_->stop(); }

std::error_code MessageNode::startListening() {
  std::error_code result;
  impl_->perform([&] { result = impl_->startListening(); });
  return result;
}

void MessageNode::stopListening() {
  impl_->perform([&] { impl_->stopListening(); });
}

uint16_t MessageNode::port() const { return impl_->port(); }

void MessageNode::setRole(const std::string& role) {
  impl_->perform([&] { impl_->setRole(role); });
}

std::string MessageNode::role() {
  std::string result;
  impl_->perform([&] { result = impl_->role(); });
  return result;
}

void MessageNode::setAnswers(const std::string& jsonText) {
  CannedAnswers answers(jsonText);
  impl_->perform([&] { impl_->setAnswers(std::move(answers)); });
}

void MessageNode::runAfter(std::chrono::milliseconds time, std::function<void()> function) {
  impl_->perform([&] { impl_->runAfter(time, std::move(function)); });
}

bool MessageNode::inject(int32_t source, const std::string& kind, const std::string& path,
                         int32_t destination, const std::string& body) {
  return injectPayload("[\"" + kind + "\", \"" + path + "\", " + std::to_string(source) + ", " +
                       std::to_string(destination) + ", 0]\n" + body);
}

bool MessageNode::injectPayload(const std::string& payload) {
  bool result = false;
  impl_->perform([&] { result = impl_->injectPayload(payload); });
  return result;
}

std::size_t MessageNode::writeRaw(const std::string& name, const std::string& bytes) {
  std::size_t result = 0;
  impl_->perform([&] { result = impl_->writeRaw(name, bytes); });
  return result;
}

std::size_t MessageNode::closeConnections(const std::string& name) {
  std::size_t result = 0;
  impl_->perform([&] { result = impl_->closeConnections(name, NodeConnection::Ending::Close); });
  return result;
}

std::size_t MessageNode::resetConnections(const std::string& name) {
  std::size_t result = 0;
  impl_->perform([&] { result = impl_->closeConnections(name, NodeConnection::Ending::Reset); });
  return result;
}

void MessageNode::setReadingPaused(const std::string& name, bool paused) {
  impl_->perform([&] { impl_->setReadingPaused(name, paused); });
}

void MessageNode::setWritingPaused(const std::string& name, bool paused) {
  impl_->perform([&] { impl_->setWritingPaused(name, paused); });
}

std::vector<NodeParticipant> MessageNode::participants() {
  std::vector<NodeParticipant> result;
  impl_->perform([&] { result = impl_->participants(); });
  return result;
}

}  // namespace valtor
