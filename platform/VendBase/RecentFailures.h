#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Base/Date.h"
#include "platform/Base/Error.h"

namespace tallow {

// What kind of trouble an error is, and so what to do about it.
enum class FailureKind { Offline, LockedOut, Expired, Refused, Other };
FailureKind failureKindOf(const Error& error);
// "offline", "locked out", "expired", "refused", "failed".
const char* nameOf(FailureKind kind);
// One sentence for whoever looks after the machine.
const char* adviceFor(FailureKind kind);

// What has failed lately, for status reports: the last kMost failures, each with its client and the
// operation that it was called by (Activity). The same failure again, with the same text, counts as
// one more of the one that is there. Any thread.
class RecentFailures {
 public:
  static constexpr const char* kClassName = "RecentFailures";  // in log lines

  static constexpr std::size_t kMost = 16;

  struct Failure {
    Date date;  // of the last time
    std::size_t times = 1;
    std::string client;     // empty: not known, or none
    std::string operation;  // likewise
    Error error;
    double loggedAt = 0;  // monotonic
  };

  static RecentFailures& shared();

  // Also logged, as a warning; the same again at most once a minute. `client` where no activity
  // names one. What was cancelled has not failed.
  void note(const Error& error, const std::string& client = {});
  // The latest first.
  std::vector<Failure> list() const;

 private:
  // Whether it is to be logged, too.
  bool _add(Failure failure);

  mutable std::mutex _lock;
  std::deque<Failure> _failures;  // guarded by _lock
};

}  // namespace tallow
