#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "client/AccountServiceClient.h"

namespace tallow {

// An observer of the primary account, and who that is as far as it knows: so that it hears, too, of
// a change that the service has not told, because it happened while the service was restarted.
// Shared by the client's connection and the answers that come in; any thread, and the observer is
// called by one at a time.
class AccountWatch {
 public:
  explicit AccountWatch(AccountServiceClient::AccountObserver observer)
      : _observer(std::move(observer)) {}

  // The service tells of a change.
  void changed(const std::optional<Dictionary>& account) {
    const std::lock_guard lock(_mutex);
    ++_changes;
    tell(account);
  }
  // The service has been asked who it is: `changes` were known when it was. A change that came in
  // meanwhile is newer than the answer. The first answer is nothing new.
  void found(const std::optional<Dictionary>& account, std::uint64_t changes) {
    const std::lock_guard lock(_mutex);
    if (changes != _changes) return;
    if (!_known) {
      _known = dsIDOf(account);
    } else if (*_known != dsIDOf(account)) {
      tell(account);
    }
  }
  std::uint64_t changes() {
    const std::lock_guard lock(_mutex);
    return _changes;
  }
  // The observer is not called any more once this has returned.
  void end() {
    const std::lock_guard lock(_mutex);
    _observer = nullptr;
  }

 private:
  static std::uint64_t dsIDOf(const std::optional<Dictionary>& account) {
    return account ? (*account)["dsid"].unsignedValue() : 0;
  }
  void tell(const std::optional<Dictionary>& account) {
    _known = dsIDOf(account);
    if (_observer) _observer(account);
  }

  std::mutex _mutex;
  AccountServiceClient::AccountObserver _observer;
  std::optional<std::uint64_t> _known;  // 0: nobody
  std::uint64_t _changes = 0;
};

}  // namespace tallow
