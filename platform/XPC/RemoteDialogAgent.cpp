#include "platform/XPC/RemoteDialogAgent.h"

#include <utility>

#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {

PeerConnection::Address addressOf(const std::string& uniqueName, const std::string& path) {
  return {"dialog agent", uniqueName.c_str(), path.c_str(), "com.vantor.HSDialogAgent"};
}

}  // namespace

RemoteDialogAgent::RemoteDialogAgent(std::string uniqueName, std::string path, std::string client)
    : _uniqueName(std::move(uniqueName)), _path(std::move(path)), _client(std::move(client)) {}

void RemoteDialogAgent::showDialog(std::uint64_t number, const HSDialog& dialog) {
  PeerConnection::call<>(
      addressOf(_uniqueName, _path), "showDialog", PeerConnection::kUsualPatience,
      std::function<void(std::optional<Error>)>(
          [self = shared_from_this(), number](const std::optional<Error>& error) {
            if (error) HSDialogCenter::shared().dismissUnshown(*self, number);
          }),
      number, wire::dictionary(dialog.dictionary()));
}

void RemoteDialogAgent::dismissDialog(std::uint64_t number) {
  PeerConnection::call<>(addressOf(_uniqueName, _path), "dismissDialog",
                         PeerConnection::kUsualPatience,
                         std::function<void(std::optional<Error>)>(), number);
}

}  // namespace tallow
