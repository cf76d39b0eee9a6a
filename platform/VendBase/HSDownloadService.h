#pragma once

#include <functional>
#include <optional>

#include "platform/Base/Error.h"

namespace tallow {

// The store's download service, as one client sees it. Reached through HSServiceProxy; on the bus
// it is the interface com.vantor.HSDownloadService. Any thread may call.
class HSDownloadService {
 public:
  // Called once, on any thread, with nothing when the service has taken the request down. Where no
  // such service runs or can be started, and when it goes away or does not answer in time, the
  // error is kHSErrorServiceUnavailable. May be empty.
  using Reply = std::function<void(std::optional<Error> error)>;

  virtual ~HSDownloadService() = default;
  // Returns at once. The service asks the store itself what there is to download.
  virtual void checkAutomaticDownloadQueue(Reply reply) = 0;
};

}  // namespace tallow
