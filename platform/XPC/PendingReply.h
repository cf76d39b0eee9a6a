#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/XPC/BusConnection.h"
#include "platform/XPC/SDBus.h"
#include "platform/XPC/WireTypes.h"

namespace tallow {

// What the calls of one caller make the service and the bus hold. Shared by the caller and its
// calls, which may be answered when the caller has long left. Any thread.
struct CallCounts {
  // Of all callers together.
  static inline std::atomic<std::size_t> totalWaitingBytes{0};
  static constexpr std::size_t kMaxTotalWaitingBytes = std::size_t{256} << 20;

  CallCounts() = default;
  CallCounts(const CallCounts&) = delete;
  CallCounts& operator=(const CallCounts&) = delete;
  ~CallCounts() { setAnsweredBytes(0); }

  std::atomic<std::uint32_t> waiting{0};
  std::atomic<std::size_t> waitingBytes{0};

  // What an answer costs beside its values.
  static constexpr std::size_t kAnswerBytes = 256;
  // When the bus holds 127 MiB of what the service has sent, for whomever, it stops to take
  // anything from it, for anybody. So a caller with more than the first unread is not sent anything
  // any more; and when all together have so much, nobody with more than the last.
  static constexpr std::size_t kMaxUnreadBytes = std::size_t{64} << 20;
  static constexpr std::size_t kMaxTotalUnreadBytes = std::size_t{96} << 20;
  static constexpr std::size_t kMaxUnreadBytesWhenFull = std::size_t{1} << 20;
  // From here on everybody is asked more often whether they read.
  static constexpr std::size_t kManyTotalUnreadBytes = std::size_t{32} << 20;

  // Of answers and of what observers are told, since it was last made sure that the caller reads.
  std::size_t answeredBytes() const { return _answeredBytes.load(std::memory_order_relaxed); }
  static bool isMuchUnread() {
    return _totalAnsweredBytes.load(std::memory_order_relaxed) >= kManyTotalUnreadBytes;
  }
  bool mayBeAnswered() const {
    const bool isFull = _totalAnsweredBytes.load(std::memory_order_relaxed) >= kMaxTotalUnreadBytes;
    return answeredBytes() < (isFull ? kMaxUnreadBytesWhenFull : kMaxUnreadBytes);
  }
  void addAnswer(std::size_t bytes) {
    _answeredBytes.fetch_add(kAnswerBytes + bytes, std::memory_order_relaxed);
    _totalAnsweredBytes.fetch_add(kAnswerBytes + bytes, std::memory_order_relaxed);
  }
  void setAnsweredBytes(std::size_t bytes) {
    const std::size_t before = _answeredBytes.exchange(bytes, std::memory_order_relaxed);
    _totalAnsweredBytes.fetch_add(bytes - before, std::memory_order_relaxed);
  }

 private:
  static inline std::atomic<std::size_t> _totalAnsweredBytes{0};
  std::atomic<std::size_t> _answeredBytes{0};
};

// The part of a pending reply that does not depend on its type.
class PendingReplyBase {
 public:
  static constexpr const char* kNoReplyError = "com.vantor.Error.NoReply";

  PendingReplyBase(const PendingReplyBase&) = delete;
  PendingReplyBase& operator=(const PendingReplyBase&) = delete;

 protected:
  PendingReplyBase(std::shared_ptr<BusConnection> connection, std::shared_ptr<CallCounts> counts,
                   std::size_t bytes);
  ~PendingReplyBase() = default;

  // True for the first who asks: a call is answered once. It no longer counts as waiting then: who
  // has read the answer may call again.
  bool claim();
  CallCounts& counts() const { return *_counts; }
  static void logFailure(const sdbus::Error& error);
  static void logDrop();

 private:
  std::shared_ptr<BusConnection> _connection;  // outlives the message in the derived class
  std::shared_ptr<CallCounts> _counts;
  std::size_t _bytes;
  std::atomic<bool> _claimed{false};
};

// The answer that one call waits for. Given once, from any thread; a second answer is ignored. When
// the last reference goes and nobody has answered, the caller is told so.
template <class... Results>
class PendingReply final : public PendingReplyBase {
 public:
  PendingReply(std::shared_ptr<BusConnection> connection, std::shared_ptr<CallCounts> counts,
               std::size_t bytes, sdbus::Result<Results...> result)
      : PendingReplyBase(std::move(connection), std::move(counts), bytes),
        _result(std::move(result)) {}
  ~PendingReply() {
    if (claim()) _return(bus::makeError(_dropError, _dropText));
  }

  // What the caller is told when nobody answers: for calls that the service refuses in this way.
  // Before the call is made.
  void setDropError(const char* name, const char* text) {
    _dropError = name;
    _dropText = text;
  }

  void answer(const Results&... results) {
    if (!claim()) return;
    if (!counts().mayBeAnswered()) {
      logDrop();
      return;
    }
    try {
      wire::takeWrittenBytes();
      _result.returnResults(results...);
      counts().addAnswer(wire::takeWrittenBytes());
    } catch (const sdbus::Error& error) {
      // A value that the bus does not carry; or there is no bus any more.
      _return(error);
    }
  }

  void fail(const char* name, const std::string& text) {
    if (!claim()) return;
    _return(bus::makeError(name, text));
  }

 private:
  void _return(const sdbus::Error& error) {
    if (!counts().mayBeAnswered()) {
      logDrop();
      return;
    }
    counts().addAnswer(0);
    try {
      _result.returnError(error);
    } catch (const sdbus::Error& failure) {
      logFailure(failure);
    }
  }

  sdbus::Result<Results...> _result;
  const char* _dropError = kNoReplyError;
  const char* _dropText = "The service dropped the call unanswered.";
};

}  // namespace tallow
