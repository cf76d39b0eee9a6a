#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/Base/Error.h"

namespace tallow {

// The calls of one peer for which nobody here waits: only so many are unanswered at a time, since a
// bus bounds what may be (128 on many a system bus), and the next ones wait their turn. So a burst
// is worked off without loss by a peer that answers, and one that does not holds a bounded number.
// One for each peer, for the life of the process. Any thread.
class PeerBacklog {
 public:
  static constexpr const char* kClassName = "PeerBacklog";  // in log lines

  static constexpr std::size_t kMaxUnanswered = 32;
  static constexpr std::size_t kMaxWaiting = 1 << 15;
  static constexpr std::size_t kMaxWaitingBytes = std::size_t{16} << 20;

  using Answered = std::function<void(const std::optional<Error>& error)>;
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
  };
  void make(const Call& call);
  void answered(const std::optional<Error>& error);

  const char* const _what;
  std::mutex _lock;
  // Guarded by _lock.
  std::deque<Waiting> _waiting;
  std::size_t _waitingBytes = 0;
  std::size_t _unanswered = 0;
  std::shared_ptr<void> _transaction;  // open while anything is: the process would lose it
};

}  // namespace tallow
