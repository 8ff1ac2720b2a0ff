#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/util/UniqueDescriptor.h"
#include "bus/MyMutexClass.h"

namespace valtor {

// The sending half of one TCP link after another: it owns the socket, numbers the links from 1, and
// writes whole frames under its send lock, so that frames of several threads never mix. When a full
// socket stops a frame midway, the rest is kept and goes out before the next frame of the same
// link: a slow reader never breaks the framing. A new link starts clean.
//
// Any thread may send and ask. open and close belong to the thread that reads the socket (or to the
// owner while no such thread runs); it may read descriptor() without a lock, since nobody else
// closes it. Nothing is logged under the send lock.
class BusLink {
 public:
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
  };

  // The pause after every successful send, which paces a client to about a thousand frames a
  // second.
  static constexpr std::chrono::microseconds kPause{1000};
  // The pause after a full socket. Every tenth of them uses up one unit of the retry budget.
  static constexpr std::chrono::microseconds kFullPause{100};

  BusLink() = default;

  // Takes the socket as the next link: number, state 1, no rest of an old frame, and then, still
  // under the send lock, the frames that firstFrames returns, before anybody else's. What became of
  // each of these; nothing, and the socket is closed, while closing. firstFrames may take leaf
  // locks only.
  std::optional<std::vector<SendResult>> open(
      UniqueDescriptor socket, int retryBudget,
      const std::function<std::vector<std::string>()>& firstFrames);

  // Writes one frame if the given link still stands.
  SendResult send(const std::string& frame, uint32_t link, int retryBudget);

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

  // From now on nothing is sent and no link opens; a blocked read of the socket returns. Senders
  // that wait for a full socket give up.
  void beginClosing();
  // Makes links possible again.
  void endClosing() { closing_ = false; }
  bool isClosing() const { return closing_; }

  // Ends the link that stands: its reader finds the end of the stream.
  void shutdownSocket();

  // Closes the socket, if there is one, exactly once.
  void closeSocket();

 private:
  SendResult write(const std::string& frame, int retryBudget) VALTOR_REQUIRES(sendLock_);
  SendResult writeBytes(const char* data, std::size_t size, int& budget, int& fullCount)
      VALTOR_REQUIRES(sendLock_);

  MyMutexClass sendLock_;
  UniqueDescriptor socket_ VALTOR_GUARDED_BY(sendLock_);
  std::string tail_ VALTOR_GUARDED_BY(sendLock_);  // the unsent rest of a frame of this link
  std::atomic<uint32_t> number_{0};                // written under sendLock_
  std::atomic<int> state_{0};                      // written under sendLock_
  std::atomic<int> descriptor_{0};                 // written under sendLock_
  std::atomic<int> shownDescriptor_{-1};
  std::atomic<bool> closing_{false};
};

}  // namespace valtor
