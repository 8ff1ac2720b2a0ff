#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "app/util/FairMutex.h"
#include "app/util/Mutex.h"
#include "app/util/TrafficCount.h"
#include "app/util/UniqueDescriptor.h"
#include "bus/ClosingSignal.h"
#include "bus/OutgoingQueue.h"
#include "bus/message/Frame.h"

namespace valtor {

class FrameSender;
class Watchdog;

// The sending half of one TCP link after another: it owns the socket, numbers the links from 1, and
// writes whole frames under its send lock, at least a pace apart, so that frames of several threads
// never mix. When a full socket stops a frame midway, the rest goes out before anything else of the
// same link, by the FrameSender if nobody else sends: a slow reader never breaks the framing. A new
// link starts clean.
//
// There are two ways out. send() waits for its turn, the pace and room, and says what became of the
// frame. forward() never waits for a router that takes nothing: what cannot leave now waits in the
// link's queue, which a FrameSender empties. Frames of forward() keep their order; one of send()
// may pass those that wait, since whoever waits for it is on this thread.
//
// Any thread may send, forward and ask. open and closeSocket belong to the thread that reads the
// socket (or to the owner while no such thread runs); it may read descriptor() without a lock,
// since nobody else closes it. Nothing is logged under the send lock.
class BusLink : public std::enable_shared_from_this<BusLink> {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Send {
    Sent,
    NotConnected,     // no link, another link than expected, or closing
    Failed,           // the socket refused: see error
    BudgetExhausted,  // the socket stayed full: see sent
  };
  struct SendResult {
    Send outcome = Send::NotConnected;
    int error = 0;         // errno of a failed send
    std::size_t sent = 0;  // bytes of this frame that went out
    std::size_t size = 0;  // bytes of this frame; 0 when none was tried
    bool kept = false;     // given up, but what is left of it leaves later, if the link stands
  };

  // What the sender has to do about a link that it has looked at.
  struct Wait {
    enum class For {
      Nothing,  // no frame waits, or its link is at its end
      Holder,   // somebody else sends: whoever that is wakes the sender
      Time,     // until the time below
      Room,     // until the socket has room, or the time below
    } reason = For::Nothing;
    Clock::time_point until{};
    int descriptor = 0;
  };

  // The least time between two successful sends, which paces a client to about a thousand frames a
  // second.
  static constexpr std::chrono::microseconds kPace{1000};
  // How long a full socket is waited for at a time: one whose reader is slow reports room much
  // later than it has some.
  static constexpr std::chrono::milliseconds kRoomSlice{20};
  // Who has taken nothing for so long is waited for no more. A pause between two looks counts for
  // no more than kLook: it may be this machine that had no time.
  static constexpr std::chrono::seconds kStall{1};
  static constexpr std::chrono::milliseconds kLook{100};

  // The name is the client's, for log lines. The budget is the time for which send() waits for
  // room, from the last byte on that the socket took.
  BusLink(std::string name, std::chrono::milliseconds budget,
          std::shared_ptr<ClosingSignal> closing);

  // Before the first link. Without one, or where it does not run, forward() is send().
  void setSender(std::weak_ptr<FrameSender> sender) { sender_ = std::move(sender); }

  // Before the first link. Goes on being fed while locks are held that this link keeps waiting.
  void setWatchdog(Watchdog* watchdog) { watchdog_ = watchdog; }

  // Takes the socket as the next link: number, state 1, an empty queue, and then, still under the
  // send lock, the frames that firstFrames returns, before anybody else's. What became of each of
  // these; nothing, and the socket is closed, while closing. firstFrames may take leaf locks only.
  std::optional<std::vector<SendResult>> open(
      UniqueDescriptor socket, const std::function<std::vector<SharedFrame>()>& firstFrames);

  // Writes one frame if the given link still stands. Waits for its turn and for room: at most the
  // budget after the last byte that the socket took, and only until the caller's token is stopped.
  SendResult send(const SharedFrame& frame, uint32_t link, const std::stop_token& caller = {});

  // Sends the frame or lets it wait. Blocks only while the queue is full and its router still takes
  // frames; the client's end and the caller's token end that. NotConnected, or Sent: it left,
  // waits, or was dropped, which is logged once for all that a stalled router loses. Logs what it
  // meets.
  Send forward(const SharedFrame& frame, const std::stop_token& caller);

  // For the sender: sends what may leave now. Logs what it meets.
  Wait drain();
  // For the sender: drops the newest waiting frame of a stalled link. Whether there was one.
  bool giveWay();

  int state() const { return state_; }
  void setState(int state);
  // The number of the link that stands, or stood last; 0 before the first.
  uint32_t number() const { return number_; }
  // The socket, or 0 without one.
  int descriptor() const { return descriptor_; }
  // The number of the socket that was opened last, for log lines; -1 before the first attempt, 0
  // after a failed one.
  int shownDescriptor() const { return shownDescriptor_; }
  void showDescriptor(int descriptor) { shownDescriptor_ = descriptor; }

  // Whether frames may leave: a link stands and is not at its end.
  bool isStanding() const { return !isOver() && state_ == 1; }
  // What the socket holds that the far end has not acknowledged, in bytes; 0 without one.
  int unsentBytes();
  // Whether its router has taken nothing for kStall.
  bool isStalled() const { return stalled_; }
  OutgoingQueue::Size waiting() const { return queue_.size(); }
  // What forward() was given and has left, and every frame that has.
  const TrafficCount& forwarded() const { return forwarded_; }
  const TrafficCount& sent() const { return sent_; }
  // Frames that a stalled router lost.
  uint64_t droppedFrames() const { return allDropped_; }
  // Frames that waited when their link ended.
  uint64_t framesLostWithLink() const { return lostWithLink_; }
  bool hasWaiting() const { return !queue_.isEmpty(); }

  // Ends the link that stands: its reader finds the end of the stream, and senders give up. Waits
  // for nobody.
  void shutdownSocket();

  // Closes the socket, if there is one, exactly once.
  void closeSocket();

  // Logs a send that failed or gave up.
  void report(const SendResult& result) const;

 private:
  class SendScope;

  // How long one send may wait still, and what ends that early.
  struct Patience {
    std::chrono::microseconds left;
    const std::stop_token& caller;
  };

  bool stands(uint32_t link) const VALTOR_REQUIRES(sendLock_);
  bool isOver() const { return closing_->begun() || ended_; }
  SendResult write(const SharedFrame& frame, const std::stop_token& caller)
      VALTOR_REQUIRES(sendLock_);
  SendResult finishHead(Patience& patience) VALTOR_REQUIRES(sendLock_);
  void giveTurn(Patience& patience) VALTOR_REQUIRES(sendLock_);
  SendResult writeBytes(const SharedFrame& frame, const OutgoingQueue::Head* head,
                        Patience& patience) VALTOR_REQUIRES(sendLock_);
  ssize_t sendOnce(const SharedFrame& frame, std::size_t offset) VALTOR_REQUIRES(sendLock_);
  void waitForPace() const VALTOR_REQUIRES(sendLock_);
  void waitForRoom(std::chrono::microseconds& left) const VALTOR_REQUIRES(sendLock_);
  void noteFull() VALTOR_REQUIRES(sendLock_);
  void noteTaken() VALTOR_REQUIRES(sendLock_);
  std::optional<SendResult> drainHead(Wait& wait) VALTOR_REQUIRES(sendLock_);
  bool sendHead(const OutgoingQueue::Head& head) VALTOR_REQUIRES(sendLock_);
  void headIsOut(const OutgoingQueue::Head& head, std::size_t done, std::size_t count)
      VALTOR_REQUIRES(sendLock_);
  Send enqueue(const SharedFrame& frame, FrameSender& sender, const std::stop_token& caller);
  std::size_t endQueue() VALTOR_REQUIRES(sendLock_);
  void noteDropped();
  void sayWhatChanged();
  void sayLost(std::size_t count);
  void tellSender() noexcept;

  const std::string name_;
  const std::chrono::milliseconds budget_;
  const std::shared_ptr<ClosingSignal> closing_;
  std::weak_ptr<FrameSender> sender_;
  Watchdog* watchdog_ = nullptr;

  FairMutex sendLock_;
  OutgoingQueue queue_;
  Clock::time_point nextSend_ VALTOR_GUARDED_BY(sendLock_){};
  // How long the socket has been seen full without a sign that its reader takes anything, when it
  // was looked at last, and what it held then.
  Clock::duration fullFor_ VALTOR_GUARDED_BY(sendLock_){};
  std::optional<Clock::time_point> fullSeen_ VALTOR_GUARDED_BY(sendLock_);
  Clock::time_point nextTry_ VALTOR_GUARDED_BY(sendLock_){};  // of a stalled router
  bool passed_ VALTOR_GUARDED_BY(sendLock_) = false;          // the queue has the next turn
  int unsent_ VALTOR_GUARDED_BY(sendLock_) = 0;
  // Since when the frame at the queue's head has met a full socket.
  std::optional<Clock::time_point> headFullSince_ VALTOR_GUARDED_BY(sendLock_);

  std::atomic<uint32_t> number_{0};   // written under sendLock_
  std::atomic<int> state_{0};         // written under sendLock_
  std::atomic<bool> stalled_{false};  // written under sendLock_
  std::atomic<bool> ended_{false};    // the socket was shut down
  std::atomic<bool> missed_{false};   // the frame sender found the send lock taken
  std::atomic<int> descriptor_{0};    // written under both locks
  std::atomic<int> shownDescriptor_{-1};

  Mutex socketLock_;  // a leaf: the socket stays open while it is held
  UniqueDescriptor socket_ VALTOR_GUARDED_BY(socketLock_);

  TrafficCount forwarded_;
  TrafficCount sent_;
  std::atomic<uint64_t> allDropped_{0};
  std::atomic<uint64_t> lostWithLink_{0};

  Mutex episodeLock_;                                              // a leaf
  std::size_t droppedFrames_ VALTOR_GUARDED_BY(episodeLock_) = 0;  // since the router stalled
};

}  // namespace valtor
