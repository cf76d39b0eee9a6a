#include "platform/XPC/RemoteDownloadService.h"

#include <utility>

#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {
constexpr PeerConnection::Address kPeer = {"download service", "com.vantor.downloadservice",
                                           "/com/vantor/downloadservice",
                                           "com.vantor.HSDownloadService"};
}  // namespace

RemoteDownloadService::RemoteDownloadService(std::shared_ptr<const HSStoreClient> storeClient)
    : _storeClient(std::move(storeClient)) {}

void RemoteDownloadService::checkAutomaticDownloadQueue(Reply reply) {
  const std::string client = _storeClient ? _storeClient->identifier.value_or("") : "";
  PeerConnection::call<>(kPeer, "checkAutomaticDownloadQueue", PeerConnection::kUsualPatience,
                         std::function<void(std::optional<Error>)>(std::move(reply)), client);
}

}  // namespace tallow
