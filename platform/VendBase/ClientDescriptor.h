#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/VendBase/HSStoreClient.h"
#include "platform/XPC/ProcessIdentity.h"

namespace tallow {

// One client descriptor file: who a process is to the service. Format: tallowd-clients.d(5).
// Immutable.
struct ClientDescriptor {
  // How to recognise a process: everything that is given must hold.
  struct Pattern {
    std::string executable;
    std::string systemUnit;
    std::string userUnit;
    std::string flatpak;
    std::string securityLabel;

    bool matches(const ProcessIdentity& process) const;
  };

  std::string fileName;
  // Null for processes that have none ("store-client = false").
  std::shared_ptr<const HSStoreClient> client;
  bool mayActAsOthers = false;
  bool mayShowDialogs = false;
  std::vector<Pattern> processes;  // any of these; none for a client that is only acted for

  bool matches(const ProcessIdentity& process) const;

  // Strict: what is unknown, of another type or out of range refuses the whole file, and the error
  // says what and where. `fileName` is for messages. Error domain "ClientDescriptor".
  static Result<ClientDescriptor> parse(std::string_view text, std::string fileName);
};

}  // namespace tallow
