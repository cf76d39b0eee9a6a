#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/XPC/BusConnection.h"
#include "platform/XPC/SDBus.h"

namespace tallow {

// How many calls of one caller wait, and what they hold. Shared by the caller and its calls, which
// may be answered when the caller has long left.
struct WaitingCalls {
  std::atomic<std::uint32_t> count{0};
  std::atomic<std::size_t> bytes{0};
};

// The part of a pending reply that does not depend on its type.
class PendingReplyBase {
 public:
  static constexpr const char* kNoReplyError = "com.vantor.Error.NoReply";

  PendingReplyBase(const PendingReplyBase&) = delete;
  PendingReplyBase& operator=(const PendingReplyBase&) = delete;

 protected:
  PendingReplyBase(std::shared_ptr<BusConnection> connection, std::shared_ptr<WaitingCalls> waiting,
                   std::size_t bytes);
  ~PendingReplyBase() = default;

  // True for the first who asks: a call is answered once. It no longer counts as waiting then: who
  // has read the answer may call again.
  bool claim();
  static void logFailure(const sdbus::Error& error);

 private:
  std::shared_ptr<BusConnection> _connection;  // outlives the message in the derived class
  std::shared_ptr<WaitingCalls> _waiting;
  std::size_t _bytes;
  std::atomic<bool> _claimed{false};
};

// The answer that one call waits for. Given once, from any thread; a second answer is ignored. When
// the last reference goes and nobody has answered, the caller is told so.
template <class... Results>
class PendingReply final : public PendingReplyBase {
 public:
  PendingReply(std::shared_ptr<BusConnection> connection, std::shared_ptr<WaitingCalls> waiting,
               std::size_t bytes, sdbus::Result<Results...> result)
      : PendingReplyBase(std::move(connection), std::move(waiting), bytes),
        _result(std::move(result)) {}
  ~PendingReply() {
    if (claim()) _return(bus::makeError(kNoReplyError, "The service dropped the call unanswered."));
  }

  void answer(const Results&... results) {
    if (!claim()) return;
    try {
      _result.returnResults(results...);
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
    try {
      _result.returnError(error);
    } catch (const sdbus::Error& failure) {
      logFailure(failure);
    }
  }

  sdbus::Result<Results...> _result;
};

}  // namespace tallow
