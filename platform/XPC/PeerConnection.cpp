#include "platform/XPC/PeerConnection.h"

#include <mutex>

#include "platform/VendBase/HSError.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/PendingReply.h"

namespace tallow {

namespace {

struct SharedBus {
  std::mutex lock;
  std::shared_ptr<BusConnection> connection;
};

SharedBus& sharedBus() {
  static SharedBus& shared = *new SharedBus;
  return shared;
}

Error withBusError(Error error, const std::string& name) {
  error.userInfo = error.userInfo.setting(PeerConnection::kBusErrorKey, name);
  return error;
}

}  // namespace

void PeerConnection::setBus(std::shared_ptr<BusConnection> bus) {
  SharedBus& shared = sharedBus();
  const std::lock_guard guard(shared.lock);
  shared.connection.swap(bus);  // the previous one goes outside the lock
}

std::shared_ptr<BusConnection> PeerConnection::bus() {
  SharedBus& shared = sharedBus();
  const std::lock_guard guard(shared.lock);
  return shared.connection;
}

bool PeerConnection::cannotBeReached(const Error& error) {
  if (error.domain != kHSErrorDomain || error.code != kHSErrorServiceUnavailable) return false;
  const std::string* const name = error.userInfo[kBusErrorKey].string();
  return name == nullptr || bus::saysNobodyIsThere(*name);
}

bool PeerConnection::wasRefusedByBus(const Error& error) {
  return error.userInfo[kBusErrorKey] == bus::kLimitsExceeded;
}

Error PeerConnection::_absent(const char* peer, const std::string& why) {
  logLevel(2, "%@: The %s is not available: %@", PeerConnection::kClassName, peer, why);
  return HSError(kHSErrorServiceUnavailable, std::nullopt, format("The %s is not available", peer));
}

Error PeerConnection::_errorFrom(const char* peer, const sdbus::Error& error, bool isFromBus) {
  const std::string name = bus::errorName(error);
  // Other services of this kind say so in their own words.
  if (bus::saysNobodyAnswers(name) || name == PendingReplyBase::kNoReplyError)
    return withBusError(_absent(peer, error.getMessage()), name);
  logLevel(2, "%@: The %s answers with an error: %@: %@", PeerConnection::kClassName, peer, name,
           error.getMessage());
  const Error made = makeError(name, -1, error.getMessage());
  return isFromBus ? withBusError(made, name) : made;
}

}  // namespace tallow
