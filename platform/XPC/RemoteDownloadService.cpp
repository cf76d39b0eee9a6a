#include "platform/XPC/RemoteDownloadService.h"

#include <utility>

#include "platform/VendBase/HSError.h"
#include "platform/XPC/PeerBacklog.h"
#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {
constexpr PeerConnection::Address kDownloadService = {
    "download service", "com.vantor.downloadservice", "/com/vantor/downloadservice",
    "com.vantor.HSDownloadService"};
}  // namespace

RemoteDownloadService::RemoteDownloadService(std::shared_ptr<const HSStoreClient> storeClient)
    : _storeClient(std::move(storeClient)) {}

void RemoteDownloadService::checkAutomaticDownloadQueue(Reply reply) {
  static PeerBacklog& backlog = *new PeerBacklog(kDownloadService.what);
  const std::string client = _storeClient ? _storeClient->identifier.value_or("") : "";
  const bool isTaken = backlog.add(
      [client, reply](PeerBacklog::Answered answered) {
        PeerConnection::call<>(
            kDownloadService, "checkAutomaticDownloadQueue", PeerBacklog::kPatience,
            std::function<void(std::optional<Error>)>(
                [reply, answered = std::move(answered)](const std::optional<Error>& error) {
                  if (answered(error) && reply) reply(error);
                }),
            client);
      },
      client.size(),
      [reply](const Error& error) {
        if (reply) reply(error);
      });
  if (!isTaken && reply)
    reply(HSError(kHSErrorServiceUnavailable, std::nullopt, "The download service is busy"));
}

}  // namespace tallow
