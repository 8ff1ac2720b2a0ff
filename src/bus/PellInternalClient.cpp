#include "bus/PellInternalClient.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/Insist.h"
#include "app/util/LineBudget.h"
#include "app/util/UniqueDescriptor.h"
#include "app/util/Warnings.h"
#include "app/util/Watchdog.h"
#include "bus/PellInternalClientMsgQThread.h"
#include "bus/PellInternalClientRxThread.h"
#include "bus/SocketConnect.h"
#include "bus/message/RSPMessage.h"
#include "bus/message/RequestMessages.h"
#include "connections/phy/IPPhy.h"

namespace valtor {

namespace {

// The client that the calling thread belongs to, if it is a client's receive or message-queue
// thread.
thread_local const PellInternalClient* currentClient = nullptr;

struct AddressListDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

// Stops the process when the host has no address: without one the daemon has no work, and whoever
// restarts it sees why. A router's address needs no look-up, whose lack of memory for a moment
// would end the bridge to all others.
sockaddr_in resolve(const std::string& host, int32_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1) {
    return address;
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int status = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (status != 0) {
    syslog(LOG_CRIT, "getaddrinfo: %s\n", gai_strerror(status));
    std::abort();
  }
  const AddressList found(list);
  std::memcpy(&address, found->ai_addr, sizeof address);
  return address;
}

// False, with errno, when it cannot be set: a node that hangs would never be noticed.
bool setReceiveTimeout(int socket, std::chrono::milliseconds timeout) {
  if (timeout.count() == 0) {
    return true;
  }
  timeval value{};
  value.tv_sec = static_cast<time_t>(timeout.count() / 1000);
  value.tv_usec = static_cast<suseconds_t>(timeout.count() % 1000 * 1000);
  return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value) == 0;
}

// The reasons of the hook, as the log and the figures name them.
const char* plainReason(const std::string& reason) {
  constexpr std::array<std::pair<std::string_view, const char*>, 4> kPlain = {
      {{"Socket hung up", "hung up"},
       {"no resp timeout", "no response"},
       {"recv error", "receive error"},
       {"send ACK req error", "keep-alive not taken"}}};
  for (const auto& [known, plain] : kPlain) {
    if (reason == known) {
      return plain;
    }
  }
  return reason.c_str();
}

bool isUsable(const std::string& host, int32_t port) {
  return !host.empty() && port >= 1 && port <= 65535;
}

}  // namespace

PellInternalClient::PellInternalClient(std::string host, int32_t port, std::string name,
                                       int32_t sendRetryBudget)
    : name_(std::move(name)),
      // A unit stands for ten waits of 100 us.
      link_(std::make_shared<BusLink>(name_, std::chrono::milliseconds(sendRetryBudget), closing_)),
      endpoint_{std::move(host), port} {
  parser_.setMessageCallback(
      [this](const std::vector<PellInternalMessage>& messages) { deliver(messages); });
}

PellInternalClient::PellInternalClient() : PellInternalClient("", 0, "") {}

PellInternalClient::~PellInternalClient() { stopForDestruction(); }

int PellInternalClient::sendMessage(const PellInternalMessage& message) {
  return sendAs(message, getConnID());
}

int PellInternalClient::sendConstMessage(const PellInternalMessage& message) {
  return sendAs(message, message.header.sourceConnID);
}

// Stopped when the client is closed whose thread this is.
std::stop_token PellInternalClient::callersToken() {
  return currentClient != nullptr ? currentClient->closingToken() : std::stop_token();
}

int PellInternalClient::sendAs(const PellInternalMessage& message, int32_t sourceConnID) {
  BusLink::SendResult result;
  const uint32_t link = link_->number();
  if (isConnected()) {
    result = link_->send(frameOf(message, sourceConnID), link, callersToken());
  }
  if (result.outcome == BusLink::Send::NotConnected) {
    if (!result.kept) {
      countWarning(Warning::NotConnected);
      syslog(LOG_WARNING, "PellInternalClient::sendMessage - not connected.\n");
    }
    return 0;
  }
  link_->report(result);
  return result.outcome == BusLink::Send::Sent ? 0 : -1;
}

int PellInternalClient::forwardFrame(const SharedFrame& frame) {
  if (link_->forward(frame, callersToken()) == BusLink::Send::NotConnected) {
    countWarning(Warning::NotConnected);
    syslog(LOG_WARNING, "PellInternalClient::sendMessage - not connected.\n");
  }
  return 0;
}

void PellInternalClient::subscribe(const std::string& path) {
  if (!addSubscription(path)) {
    return;
  }
  // The path is listed, so nobody else would send it again on this link.
  const auto remember = [this] {
    subscriptionsUnsent_ = true;
    wakeMessageThread();
  };
  try {
    if (!sendSubscriptions({path})) {
      remember();
    }
  } catch (...) {
    remember();
    throw;
  }
}

void PellInternalClient::repeatWhatFailed() {
  const int state = link_->state();
  if (state == 1 && !link_->isStanding()) {
    return;  // its end is what the next read finds
  }
  if (state != reportedState_) {
    onConnectionStateChanged(state, "report repeated");
    reportedState_ = state;
  }
}

// What fails again is tried again. A new link begins with the whole list.
void PellInternalClient::catchUp() {
  if (!subscriptionsUnsent_.exchange(false) || !isConnected()) {
    return;
  }
  bool sent = false;
  try {
    sent = sendSubscriptions(subscriptions());
  } catch (const std::exception&) {
  }
  if (!sent) {  // what failed meanwhile stays noted otherwise
    subscriptionsUnsent_ = true;
  }
}

std::string PellInternalClient::getName() { return name_; }

bool PellInternalClient::isLocalBusClient() { return true; }

bool PellInternalClient::isConnected() const { return link_->state() == 1; }

bool PellInternalClient::isAnnouncedUp() const { return announced_ && isConnected(); }

int PellInternalClient::onMessage(const PellInternalMessage& message) {
  if (message.getKind() != MessageKind::GET || message.header.path != "system") {
    return 0;
  }
  const cJSON* param = cJSON_GetObjectItem(message.viewBody(), "param");
  const cJSON* name = nullptr;
  cJSON_ArrayForEach(name, arrayMember(param, "objectName")) {
    const char* text = cJSON_GetStringValue(name);
    if (text != nullptr && std::string_view(text) == "moduleReady") {
      sendMessage(RSPMessage(message, nullptr, moduleReadyObject()));
      break;
    }
  }
  return 0;
}

void PellInternalClient::onConnectionStateChanged(int, const std::string&) {}

JSONPtr PellInternalClient::buildLoginParameters() {
  JSONPtr login(cJSON_CreateObject());
  cJSON_AddStringToObject(login.get(), "name", getName().c_str());
  cJSON_AddNumberToObject(login.get(), "connID", getConnID());
  cJSON_AddNumberToObject(login.get(), "version", 1);
  JSONPtr parameters(cJSON_CreateObject());
  addMember(parameters.get(), "login", std::move(login));
  return parameters;
}

void PellInternalClient::setConnectionState(int state, const std::string& reason) {
  link_->setState(state);
  announced_ = state == 1;
  noteLink(state, reason);
  onConnectionStateChanged(state, reason);
  reportedState_ = state;
}

void PellInternalClient::noteLink(int state, const std::string& reason) {
  try {
    sayLink(state, reason);
  } catch (const std::bad_alloc&) {
    // The hook that follows must be called whatever can be said.
    syslog(LOG_ERR, "%s: no memory to say what became of the link.\n", name_.c_str());
  }
}

void PellInternalClient::sayLink(int state, const std::string& reason) {
  const char* const wanted = state == 1 ? nullptr : endReason_.exchange(nullptr);
  const char* const why = wanted != nullptr ? wanted : plainReason(reason);
  if (!history_.note(state == 1, why, wanted != nullptr || isClosing())) {
    return;
  }
  if (state == 1) {
    syslog(LOG_NOTICE, "%s is connected.\n", linkName().c_str());
  } else {
    syslog(LOG_NOTICE, "%s is disconnected: %s.\n", linkName().c_str(), why);
  }
}

std::string PellInternalClient::linkName() const {
  return nameForLog(name_) + " at " + nameForLog(host()) + ":" + std::to_string(port());
}

bool PellInternalClient::hasUnderWay() const {
  return link_->isStanding() && !link_->isStalled() &&
         (link_->hasWaiting() || link_->unsentBytes() > 0);
}

PellInternalClient::Figures PellInternalClient::figures() const {
  return {history_.figures(),          link_->sent().figures(), link_->forwarded().figures(),
          received_.figures(),         link_->waiting(),        link_->droppedFrames(),
          link_->framesLostWithLink(), link_->isStalled(),      queue_.figures()};
}

int PellInternalClient::connect() {
  if (!hasEndpoint()) {
    return -1;
  }
  const Locked lock(lifecycle_);
  if (rxThread_ && closing_->begun()) {
    stopThreads("disconnect");  // one of its own threads asked for the end
  }
  if (rxThread_) {
    return isConnected() ? 0 : -1;
  }
  {
    const Locked threads(threadsLock_);
    ownClose_ = nullptr;
  }
  endReason_ = nullptr;
  closing_->reset();
  try {
    return attemptAsOwner();
  } catch (...) {
    stopThreads("connect failed");
    throw;
  }
}

// The threads first: a link that nobody can read is none, and must not begin only to end at once.
int PellInternalClient::attemptAsOwner() {
  struct Turn {
    explicit Turn(PellInternalClient& owned) : client(owned) { client.setOwnerTries(true); }
    ~Turn() { client.setOwnerTries(false); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    PellInternalClient& client;
  };
  const Turn turn(*this);
  try {
    return startThreads() ? attemptConnection(timing_.ownerAttempt) : -1;
  } catch (...) {
    beginClosing();  // before the receive thread has its turn with half a link
    throw;
  }
}

void PellInternalClient::setOwnerTries(bool tries) {
  const Locked lock(threadsLock_);
  ownerTries_ = tries;
  threadsChanged_.notify_all();
}

void PellInternalClient::waitForOwner() {
  const Locked lock(threadsLock_);
  while (ownerTries_) {
    threadsChanged_.wait(threadsLock_);
  }
}

// Warns once per endpoint in a row: owners try again whenever a description is reloaded.
bool PellInternalClient::hasEndpoint() {
  Endpoint target;
  {
    const Locked lock(endpointLock_);
    target = endpoint_;
    if (isUsable(target.host, target.port)) {
      warnedEndpoint_.reset();
      return true;
    }
    if (warnedEndpoint_ && warnedEndpoint_->host == target.host &&
        warnedEndpoint_->port == target.port) {
      return false;
    }
    warnedEndpoint_ = target;
  }
  syslog(LOG_WARNING, "PellInternalClient %s cannot connect to \"%s\" port %d: no such place.\n",
         nameForLog(name_).c_str(), nameForLog(target.host).c_str(), target.port);
  return false;
}

int PellInternalClient::attemptConnection(std::chrono::milliseconds longest) {
  const Endpoint target = endpoint();
  if (!isUsable(target.host, target.port)) {
    return -1;
  }
  const sockaddr_in address = resolve(target.host, target.port);
  syslog(LOG_DEBUG, "Trying to connect to %s\n", target.host.c_str());
  UniqueDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!socket.valid() || !setReceiveTimeout(socket.get(), timing_.receiveTimeout)) {
    syslog(LOG_ERR, "PellInternalClient create socket ERROR: %s\n", errnoText(errno).c_str());
    return -1;
  }
  syslog(LOG_DEBUG, "create socket OK!\n");
  const int error = connectWithin(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                                  sizeof address, longest, [this] { return isClosing(); });
  if (error != 0) {
    if (error != ECANCELED && LineBudget::spend()) {
      syslog(LOG_ERR, "PellInternalClient connect error: %s %s\n", errnoText(error).c_str(),
             target.host.c_str());
    }
    link_->showDescriptor(0);
    return -1;
  }
  syslog(LOG_DEBUG, "connect OK!\n");
  if (!openLink(std::move(socket))) {
    return -1;
  }
  setConnectionState(1, "connect OK");
  return 0;
}

bool PellInternalClient::openLink(UniqueDescriptor socket) {
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // Built before the send lock is taken: derived classes take locks of their own for it. The id is
  // asked for each message, as in sendMessage.
  const SETMessage loginMessage("system.connection", buildLoginParameters());
  const SharedFrame login = frameOf(loginMessage, getConnID());
  const int connID = getConnID();
  subscriptionsUnsent_ = false;
  const auto results = link_->open(std::move(socket), [&] {
    // Read under the send lock: whoever adds a path later finds the link standing and sends it.
    const SETMessage list("system.connection", subscribeObject(subscriptions()));
    return std::vector<SharedFrame>{login, frameOf(list, connID)};
  });
  if (!results) {
    return false;
  }
  for (const BusLink::SendResult& result : *results) {
    link_->report(result);
  }
  for (const BusLink::SendResult& result : *results) {
    if (result.outcome != BusLink::Send::Sent) {
      // A node that does not know who this is has nothing for it.
      link_->setState(0);
      link_->closeSocket();
      return false;
    }
  }
  return true;
}

bool PellInternalClient::startThreads() {
  // A link of that very name loses what it cannot keep rather than let its node wait: here that is
  // a router that somebody named so.
  const uint32_t queueLimit = name_ == "valtor" ? PellInternalClientRxThread::kPauseChunks : 0;
  auto receive = std::make_unique<PellInternalClientRxThread>(
      PellInternalClientRxThread::Parts{*this, *link_, queue_, *closing_, timing_, name_},
      queueLimit);
  auto messages =
      std::make_unique<PellInternalClientMsgQThread>(PellInternalClientMsgQThread::Parts{
          *this, queue_, parser_, *closing_, timing_, name_, watchdog_});
  // Kept as members only once they run. The one that waits for the owner's attempt last, so that
  // it need not be ended meanwhile.
  if (startCounted(*messages)) {
    msgQThread_ = std::move(messages);
    if (startCounted(*receive)) {
      rxThread_ = std::move(receive);
      return true;
    }
  }
  stopThreads("thread not started");
  return false;
}

// Counted before it can end.
bool PellInternalClient::startCounted(MyThreadClass& thread) {
  {
    const Locked lock(threadsLock_);
    ++threadsAlive_;
    ++threadsWorking_;
  }
  bool started = false;
  try {
    started = thread.start();
  } catch (const std::bad_alloc&) {
    // Refused, with no memory to say why.
  }
  if (!started) {
    {
      const Locked lock(threadsLock_);
      --threadsWorking_;
    }
    threadEnded();
  }
  return started;
}

void PellInternalClient::waitTillComplete() {
  {
    const Locked lock(threadsLock_);
    while (threadsAlive_ > 0) {
      threadsChanged_.wait(threadsLock_);
    }
  }
  std::printf("%s done\n", "waitTillComplete");
}

bool PellInternalClient::isRunning() {
  const Locked lock(threadsLock_);
  return threadsAlive_ > 0;
}

void PellInternalClient::threadEnded() {
  const Locked lock(threadsLock_);
  --threadsAlive_;
  threadsChanged_.notify_all();
}

void PellInternalClient::threadRuns() { currentClient = this; }

void PellInternalClient::threadEnds() {
  const char* reason = nullptr;
  {
    const Locked lock(threadsLock_);
    if (--threadsWorking_ == 0) {
      reason = ownClose_;
    }
  }
  // Closed by one of the two, with nobody who waits for their end and could report it.
  if (reason != nullptr && link_->state() != 0) {
    try {
      setConnectionState(0, reason);
    } catch (const std::exception& error) {
      syslog(LOG_ERR, "PellInternalClient %.1024s: %s\n", name_.c_str(), error.what());
    }
  }
  currentClient = nullptr;
  threadEnded();
}

void PellInternalClient::linkChanged(int state, const char* reason) {
  setConnectionState(state, reason);
}

bool PellInternalClient::sendKeepAlive() {
  return sendMessage(PellInternalMessage(MessageKind::SET, "")) == 0;
}

void PellInternalClient::close() { closeAs("close"); }

void PellInternalClient::disconnect() { closeAs("disconnect"); }

void PellInternalClient::closeAs(const char* reason) {
  if (LineBudget::spend()) {
    syslog(LOG_INFO, "Closing PellInternalClient %s...\n", nameForLog(name_).c_str());
  }
  if (currentClient == this) {
    {
      const Locked lock(threadsLock_);
      ownClose_ = reason;
    }
    beginClosing();
    return;
  }
  const Locked lock(lifecycle_);
  stopThreads(reason);
}

void PellInternalClient::stopForDestruction() {
  if (stopped_.exchange(true)) {
    return;
  }
  insist("a link", [this] {
    const std::string name = nameForLog(name_);
    if (LineBudget::spend()) {
      syslog(LOG_INFO, "PellInternalClient %s close. (fd=%d)\n", name.c_str(),
             link_->shownDescriptor());
    }
  });
  insist("a link", [this] {
    const Locked lock(lifecycle_);
    if (rxThread_) {
      syslog(LOG_DEBUG, "~PellInternalClient() close:%d\n", link_->shownDescriptor());
    }
    stopThreads("destroyed");
  });
}

// Whoever waits, on whatever thread, goes on: the signal wakes them, and the end of the socket
// those who wait for it.
void PellInternalClient::beginClosing() {
  closing_->begin();
  link_->shutdownSocket();
}

void PellInternalClient::stopThreads(const char* reason) {
  if (rxThread_) {
    rxThread_->end();
  }
  if (msgQThread_) {
    msgQThread_->end();
  }
  beginClosing();
  if (rxThread_) {
    rxThread_->join();
    rxThread_.reset();
  }
  link_->closeSocket();
  if (msgQThread_) {
    msgQThread_->join();
    msgQThread_.reset();
  }
  queue_.clear();
  parser_.reset();
  // Last, so that no report of a thread can follow it.
  if (link_->state() != 0) {
    setConnectionState(0, reason);
  }
}

bool PellInternalClient::addSubscription(const std::string& path) {
  const Locked lock(subscriptionLock_);
  if (std::find(subscriptions_.begin(), subscriptions_.end(), path) != subscriptions_.end()) {
    return false;
  }
  subscriptions_.push_back(path);
  return true;
}

void PellInternalClient::removeSubscription(const std::string& path) {
  const Locked lock(subscriptionLock_);
  std::erase(subscriptions_, path);
}

std::vector<std::string> PellInternalClient::subscriptions() const {
  const Locked lock(subscriptionLock_);
  return subscriptions_;
}

void PellInternalClient::sendLogin() {
  sendMessage(SETMessage("system.connection", buildLoginParameters()));
}

bool PellInternalClient::sendSubscriptions(const std::vector<std::string>& paths) {
  return sendMessage(SETMessage("system.connection", subscribeObject(paths))) == 0;
}

JSONPtr PellInternalClient::subscribeObject(const std::vector<std::string>& paths) const {
  JSONPtr list(cJSON_CreateArray());
  for (const std::string& path : paths) {
    JSONPtr entry(cJSON_CreateObject());
    cJSON_AddStringToObject(entry.get(), "path", path.c_str());
    if (receiveAll_) {
      cJSON_AddTrueToObject(entry.get(), "receiveAll");
    }
    addElement(list.get(), std::move(entry));
  }
  JSONPtr object(cJSON_CreateObject());
  addMember(object.get(), "subscribeList", std::move(list));
  return object;
}

void PellInternalClient::sendModuleReady() {
  if (!moduleReady_.exchange(true)) {
    sendMessage(NOTMessage("system", "param", moduleReadyObject()));
  }
}

JSONPtr PellInternalClient::moduleReadyObject() {
  JSONPtr state(cJSON_CreateObject());
  cJSON_AddStringToObject(state.get(), "name", getName().c_str());
  cJSON_AddNumberToObject(state.get(), "connID", getConnID());
  cJSON_AddBoolToObject(state.get(), "ready", moduleReady_ ? 1 : 0);
  JSONPtr object(cJSON_CreateObject());
  addMember(object.get(), "moduleReady", std::move(state));
  return object;
}

bool PellInternalClient::setEndpointFromPhy(const ConnectionPointPhy& phy) {
  const auto* ip = dynamic_cast<const IPPhy*>(&phy);
  if (ip == nullptr || ip->getType() != "tcp") {
    return false;
  }
  setEndpoint(ip->getIPAddress(), ip->getPort());
  return true;
}

void PellInternalClient::setEndpoint(const std::string& host, int32_t port) {
  const Locked lock(endpointLock_);
  endpoint_ = {host, port};
}

PellInternalClient::Endpoint PellInternalClient::endpoint() const {
  const Locked lock(endpointLock_);
  return endpoint_;
}

std::string PellInternalClient::host() const { return endpoint().host; }

int32_t PellInternalClient::port() const { return endpoint().port; }

void PellInternalClient::deliver(const std::vector<PellInternalMessage>& messages) {
  for (const PellInternalMessage& message : messages) {
    if (isClosing()) {
      // Whoever closes waits for this thread, and a batch may hold ten thousand messages.
      return;
    }
    Watchdog::feed();
    received_.add(message.receivedBytes());
    takeJSONFailure();
    try {
      onMessage(message);
    } catch (const std::exception& error) {
      // Without an allocation: there may be no memory still, and the others are to be delivered.
      countWarning(Warning::MessageFailed);
      syslog(LOG_ERR, "PellInternalClient %.1024s: message %s on \"%.1024s\" failed: %s\n",
             name_.c_str(), kindName(message.getKind()), message.header.path.c_str(), error.what());
      messagesLost();
    }
  }
}

}  // namespace valtor
