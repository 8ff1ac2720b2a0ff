#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "app/util/Mutex.h"
#include "app/util/OwnedJSON.h"
#include "app/util/TrafficCount.h"
#include "app/util/UniqueDescriptor.h"
#include "bus/BusLink.h"
#include "bus/ClientTiming.h"
#include "bus/ClosingSignal.h"
#include "bus/IClientThreadHost.h"
#include "bus/IPellInternalClient.h"
#include "bus/LinkHistory.h"
#include "bus/ReceiveQueue.h"
#include "bus/message/PellInternalStreamParser.h"

namespace valtor {

class ConnectionPointPhy;
class FrameSender;
class MyThreadClass;
class PellInternalClientMsgQThread;
class PellInternalClientRxThread;
class Watchdog;

// One connection to a bus node: it connects, logs in, subscribes, sends, and owns two threads. The
// receive thread keeps the link up and reads it; the message-queue thread cuts what was read into
// messages and calls onMessage for each, in order.
//
// A client is idle (no threads), running, or closing. connect() makes an idle client run, close()
// and disconnect() make it idle again; connect() may follow at once. While it runs the receive
// thread reconnects after every loss, and every new link starts with the login and the whole
// subscription list. Messages sent while the link is down are dropped with a warning.
//
// Any thread may send, subscribe and ask for the state. connect, close, disconnect and destruction
// are the owner's, one at a time (a life-cycle lock serialises them); close from one of the
// client's own threads only asks the threads to end. No thread of the client takes the life-cycle
// lock. Every most-derived class calls stopForDestruction() first thing in its destructor, since
// the threads call its virtual operations until then.
class PellInternalClient : public IPellInternalClient, private IClientThreadHost {
 public:
  using Timing = ClientTiming;

  static constexpr int kDefaultSendRetryBudget = 100;

  // The host is a name or an IPv4 address of the bus node, the port 1 to 65535. The name is the
  // client's own on the bus. With a budget of n a frame waits n milliseconds for a full socket,
  // from the last byte on that it took, before its sending is given up. Sends nothing.
  PellInternalClient(std::string host, int32_t port, std::string name,
                     int32_t sendRetryBudget = kDefaultSendRetryBudget);
  PellInternalClient();
  ~PellInternalClient() override;
  PellInternalClient(const PellInternalClient&) = delete;
  PellInternalClient& operator=(const PellInternalClient&) = delete;

  // Sends the message with this client's connection id as its source; the message itself stays as
  // it is. Blocks while others send, and at most the send retry budget after the last byte that the
  // socket took.
  int sendMessage(const PellInternalMessage& message) override;
  void subscribe(const std::string& path) override;
  virtual std::string getName();
  // The same, for those who may not call a virtual operation.
  const std::string& busName() const { return name_; }
  // close() with the reason "disconnect" for the state's hook.
  virtual void disconnect();
  // The connection id that the client announces at login.
  virtual int getConnID() = 0;
  // Whether the bus is the controller's own.
  virtual bool isLocalBusClient();
  virtual bool isConnected() const;
  // Connected, with a hook that was called for it or is about to be. A link that stands may still
  // fail before: while it logs in.
  bool isAnnouncedUp() const;
  // Answers the module-ready query. Derived classes call it first.
  int onMessage(const PellInternalMessage& message) override;
  // The far end of the link, as log lines name it. Called on any thread of the client.
  virtual std::string linkName() const;
  // Called after every change of the connection state (1 connected, 0 not), on the thread that
  // changed it, without any lock of the link.
  virtual void onConnectionStateChanged(int state, const std::string& reason);
  // The "param" of the login. May take locks of the derived class; called with no lock of the link.
  virtual JSONPtr buildLoginParameters();
  // Stores the state, then calls onConnectionStateChanged.
  virtual void setConnectionState(int state, const std::string& reason);

  // For the owner. 0 when the link stands, else -1; the receive thread keeps trying in both cases.
  // An idle client starts its threads and makes one short attempt, whose end the receive thread
  // waits for; where a thread cannot be started there is no attempt, and it stays idle. A running
  // one only reports. Without a usable endpoint (no host, or a port outside 1 to 65535) nothing is
  // started and the answer is -1, with one warning. A host that cannot be resolved stops the
  // process.
  int connect();
  // Sends the message as it is. 0 when sent or dropped because the link is down, -1 on failure.
  int sendConstMessage(const PellInternalMessage& message);
  // Hands on a frame that goes to several clients, in order and without waiting for a node that
  // takes nothing: what cannot leave now waits for the frame sender. Blocks only while that queue
  // is full and its node still takes frames, and until this client or the one whose thread calls is
  // closed. Where there is no frame sender it is sendConstMessage. 0, also when the frame is
  // dropped, which is logged.
  int forwardFrame(const SharedFrame& frame);
  // Blocks until both threads have ended, by close() or otherwise. Returns at once on an idle
  // client.
  void waitTillComplete();
  // Whether the threads run that keep the link up. False after a connect() that could not start
  // them.
  bool isRunning();
  // Ends the link and both threads, empties the queue, and waits for all of it. On one of the
  // client's own threads it waits for nothing: the thread that ends last then reports state 0.
  void close();

  // Appends the path unless it is listed. True when it was appended. Sends nothing.
  bool addSubscription(const std::string& path);
  // Removes every entry equal to the path. Sends nothing.
  void removeSubscription(const std::string& path);
  std::vector<std::string> subscriptions() const;

  void sendLogin();
  // Whether the message went out or was dropped because the link is down.
  bool sendSubscriptions(const std::vector<std::string>& paths);
  // The first call sends the module-ready notification; later ones do nothing.
  void sendModuleReady();

  // Takes over host and port of a "tcp" phy for the next attempt; false, and nothing changes, for
  // any other kind.
  bool setEndpointFromPhy(const ConnectionPointPhy& phy);
  // The endpoint of the next attempt. Any thread.
  void setEndpoint(const std::string& host, int32_t port);
  std::string host() const;
  int32_t port() const;

  // Whether frames are on their way to a node that takes what it is sent: they wait here, or are
  // not acknowledged yet.
  bool hasUnderWay() const;

  // How the client does, for whoever asks. Each part is taken at a moment of its own.
  struct Figures {
    LinkHistory::Figures history;
    TrafficCount::Figures sent;       // frames that left
    TrafficCount::Figures forwarded;  // of which forwardFrame() was given these
    TrafficCount::Figures received;   // messages
    OutgoingQueue::Size waiting;
    uint64_t dropped = 0;       // frames that a stalled node lost
    uint64_t lostWithLink = 0;  // frames that waited when their link ended
    bool stalled = false;
    ReceiveQueue::Figures queue;
  };
  Figures figures() const;

  // Why the owner ends the link next, for the log and the figures: a constant text. Forgotten with
  // the next connect().
  void setEndReason(const char* reason) { endReason_ = reason; }

  // Set before connect().
  void setFrameSender(std::weak_ptr<FrameSender> sender) { link_->setSender(std::move(sender)); }
  void setTiming(const Timing& timing) { timing_ = timing; }
  // Fed by the message-queue thread, and while that waits for a lock by whoever sends to a node
  // that takes its messages slowly; kept longer than the client.
  void setWatchdog(Watchdog* watchdog) {
    watchdog_ = watchdog;
    link_->setWatchdog(watchdog);
  }
  const Timing& timing() const { return timing_; }
  void setReceiveAll(bool receiveAll) { receiveAll_ = receiveAll; }

 protected:
  bool isBehind() override { return subscriptionsUnsent_; }
  void catchUp() override;
  // The message-queue thread asks isBehind() soon, also where nothing arrives. Any thread.
  void wakeMessageThread() { queue_.wake(); }

  // Ends the link and both threads like close(), with the destructor's log lines. A second call
  // does nothing.
  void stopForDestruction();

  // Whether the owner is closing the client, or has. Derived onMessage operations that block ask
  // it.
  bool isClosing() const { return closing_->begun(); }
  // For what a derived onMessage waits for: stopped when closing begins.
  std::stop_token closingToken() const { return closing_->token(); }

 private:
  struct Endpoint {
    std::string host;
    int32_t port = 0;
  };

  void threadRuns() override;
  void threadEnds() override;
  void waitForOwner() override;
  int attemptConnection(std::chrono::milliseconds longest) override;
  void linkChanged(int state, const char* reason) override;
  bool sendKeepAlive() override;
  void repeatWhatFailed() override;
  void messagesLost() override {}

  bool openLink(UniqueDescriptor socket);
  JSONPtr subscribeObject(const std::vector<std::string>& paths) const;
  JSONPtr moduleReadyObject();
  int sendAs(const PellInternalMessage& message, int32_t sourceConnID);
  int attemptAsOwner() VALTOR_REQUIRES(lifecycle_);
  void setOwnerTries(bool tries);
  bool startThreads() VALTOR_REQUIRES(lifecycle_);
  bool startCounted(MyThreadClass& thread);
  void stopThreads(const char* reason) VALTOR_REQUIRES(lifecycle_);
  void beginClosing();
  void closeAs(const char* reason);
  Endpoint endpoint() const;
  bool hasEndpoint();
  void deliver(const std::vector<PellInternalMessage>& messages);
  void noteLink(int state, const std::string& reason);
  void sayLink(int state, const std::string& reason);
  static std::stop_token callersToken();
  void threadEnded();

  Timing timing_;
  bool receiveAll_ = false;
  Watchdog* watchdog_ = nullptr;
  PellInternalStreamParser parser_;  // driven by the message-queue thread, or by nobody
  const std::string name_;
  std::atomic<bool> moduleReady_{false};
  std::atomic<int> reportedState_{0};             // the last state whose hook returned
  std::atomic<bool> announced_{false};            // a link whose hook was called, or is next
  std::atomic<bool> subscriptionsUnsent_{false};  // of a link that stands
  std::atomic<const char*> endReason_{nullptr};
  LinkHistory history_;
  TrafficCount received_;
  std::atomic<bool> stopped_{false};  // stopForDestruction() has run

  Mutex lifecycle_;
  std::unique_ptr<PellInternalClientRxThread> rxThread_ VALTOR_GUARDED_BY(lifecycle_);
  std::unique_ptr<PellInternalClientMsgQThread> msgQThread_ VALTOR_GUARDED_BY(lifecycle_);

  const std::shared_ptr<ClosingSignal> closing_ = std::make_shared<ClosingSignal>();
  const std::shared_ptr<BusLink> link_;  // shared with the frame sender while frames wait
  ReceiveQueue queue_;

  mutable Mutex endpointLock_;
  Endpoint endpoint_ VALTOR_GUARDED_BY(endpointLock_);
  std::optional<Endpoint> warnedEndpoint_ VALTOR_GUARDED_BY(endpointLock_);

  mutable Mutex subscriptionLock_;
  std::vector<std::string> subscriptions_ VALTOR_GUARDED_BY(subscriptionLock_);

  Mutex threadsLock_;
  std::condition_variable_any threadsChanged_;
  int threadsAlive_ VALTOR_GUARDED_BY(threadsLock_) = 0;    // until their last step
  int threadsWorking_ VALTOR_GUARDED_BY(threadsLock_) = 0;  // until they have only that left
  const char* ownClose_ VALTOR_GUARDED_BY(threadsLock_) = nullptr;  // why an own thread closed
  bool ownerTries_ VALTOR_GUARDED_BY(threadsLock_) = false;         // its attempt is under way
};

}  // namespace valtor
