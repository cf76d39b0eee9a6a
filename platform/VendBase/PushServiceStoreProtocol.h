#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/Base/Error.h"
#include "platform/Base/Value.h"

namespace tallow {

// What can be asked about a store client's pushes. Every operation returns at once and answers
// through its reply, exactly once, on any thread. Any thread may call.
class PushServiceStoreProtocol {
 public:
  template <class... Results>
  using Reply = std::function<void(Results...)>;

  virtual ~PushServiceStoreProtocol() = default;

  virtual void registerDeviceTokenForEnvironmentNamed(std::optional<std::string> environmentName,
                                                      Reply<bool, std::optional<Error>> reply) = 0;
  virtual void getEnabledMediaTypes(
      Reply<bool, std::optional<Error>, std::int64_t /*mask*/> reply) = 0;
  virtual void enableAutoDownloadForEnvironmentNamed(std::optional<std::string> environmentName,
                                                     Reply<bool, std::optional<Error>> reply) = 0;
  virtual void disableAutoDownload(Reply<bool, std::optional<Error>> reply) = 0;
  virtual void isRegisteredForAccount(
      std::optional<std::uint64_t> dsID, std::int64_t andMask,
      Reply<bool, std::optional<Error>, bool /*isRegistered*/> reply) = 0;
  virtual void handlePushNotificationMessage(const Dictionary& message) = 0;
};

}  // namespace tallow
