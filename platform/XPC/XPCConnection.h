#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

// Who is on the other end of a connection, as the bus daemon and the kernel vouch for it. One
// connection is one unique name on the bus. Immutable.
struct XPCConnection {
  std::string uniqueName;  // ":1.42"
  std::uint32_t uid = 0;
  std::int64_t pid = 0;
  // The client that a descriptor recognises in this process; null for a process whose descriptor
  // says that it has none.
  std::shared_ptr<const HSStoreClient> storeClient;
  // The descriptor allows it to act as other clients (com.vantor.HSServiceRemoteObject).
  bool mayActAsOthers = false;
  // It may show the store's dialogs to a person (com.vantor.HSDialogService).
  bool mayShowDialogs = false;
};

}  // namespace tallow
