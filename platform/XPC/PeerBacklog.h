#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/Base/Error.h"
#include "platform/Concurrency/RunLoop.h"

namespace tallow {

// The calls of one peer for which nobody here waits: only so many are unanswered at a time, since a
// bus bounds what may be (128 on many a system bus), and the next ones wait their turn. So a burst
// is worked off without loss by a peer that answers, and one that does not holds a bounded number:
// a bus holds a call open until it is answered or the peer has gone, however long its caller wants
// to wait, so that is waited for. A call that the bus refuses, for too many are open all the same,
// is made again in a second, in its place before those that came later. One for each peer, for the
// life of the process. Any thread.
class PeerBacklog {
 public:
  static constexpr const char* kClassName = "PeerBacklog";  // in log lines

  static constexpr std::size_t kMaxUnanswered = 32;
  static constexpr std::size_t kMaxWaiting = 1 << 15;
  static constexpr std::size_t kMaxWaitingBytes = std::size_t{16} << 20;
  // Of those that are unanswered, unless it is one alone: what a peer does not read fills the bus.
  static constexpr std::size_t kMaxUnansweredBytes = std::size_t{16} << 20;
  // For the calls: longer than any peer takes.
  static constexpr std::chrono::hours kPatience{24};
  static constexpr double kSecondsBetweenTries = 1;

  // False: the bus has refused the call, and it will be made again.
  using Answered = std::function<bool(const std::optional<Error>& error)>;
  // Makes the call; `answered` is to be called once, on any thread.
  using Call = std::function<void(Answered answered)>;
  // Told instead of that, on any thread, why the call will not be made after all.
  using Dropped = std::function<void(const Error& error)>;

  // `what` is the peer's name for people.
  explicit PeerBacklog(const char* what) : _what(what) {}

  // Makes the call, at once or later. `bytes` is what its arguments hold. False, logged: too much
  // waits already, and the call will never be made. A peer that cannot be reached takes what waits
  // with it, which is logged, too, and told to `dropped`.
  bool add(Call call, std::size_t bytes, Dropped dropped = nullptr);

 private:
  struct Waiting {
    Call call;
    std::size_t bytes = 0;
    Dropped dropped;
    std::uint64_t number = 0;  // in the order in which they came
  };
  void make(std::shared_ptr<Waiting> call);
  bool answered(std::shared_ptr<Waiting> call, const std::optional<Error>& error);
  bool hasRoomFor(std::size_t bytes) const;
  void begin(const Waiting& call);
  void waitForRoom();
  void makeNext();

  const char* const _what;
  std::mutex _lock;
  // Guarded by _lock.
  std::list<Waiting> _waiting;  // keeps nothing of what a burst has held
  std::size_t _waitingBytes = 0;
  std::uint64_t _lastNumber = 0;
  std::size_t _unanswered = 0, _unansweredBytes = 0;
  std::shared_ptr<RunLoop::Timer> _untilRoom;  // while the bus takes no more
  std::shared_ptr<void> _transaction;          // open while anything is: the process would lose it
};

}  // namespace tallow
