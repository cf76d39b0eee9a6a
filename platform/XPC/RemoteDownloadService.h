#pragma once

#include <memory>

#include "platform/VendBase/HSDownloadService.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

// The download service on the bus, asked on behalf of one client. Any thread.
class RemoteDownloadService final : public HSDownloadService {
 public:
  explicit RemoteDownloadService(std::shared_ptr<const HSStoreClient> storeClient);

  void checkAutomaticDownloadQueue(Reply reply) override;

 private:
  const std::shared_ptr<const HSStoreClient> _storeClient;
};

}  // namespace tallow
