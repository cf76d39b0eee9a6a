#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/VendBase/ClientDescriptor.h"

namespace tallow {

// The client descriptors that are installed: clients.d/*.toml in the data directories, then in the
// configuration directories. A file replaces one of the same name in an earlier directory; an empty
// one masks it. A file that is refused is logged, with the reason, and counts as absent; one that
// was good before and is refused now too.
//
// Read at first use, and again when something in the directories has changed: every question looks
// (a few stat calls). What could not be read in passing is read again within a second. Files are
// read in order of their names. Any thread; may be slow.
class ClientDescriptors {
 public:
  static constexpr const char* kClassName = "ClientDescriptors";  // in log lines

  virtual ~ClientDescriptors() = default;
  static ClientDescriptors& shared();
  // Another registry over the same kind of directories (Directories::shared() at the time of each
  // reading).
  static std::unique_ptr<ClientDescriptors> make();
  // The files that count as they are now, for reports: none that another replaces, but those that
  // mask one.
  struct Installed {
    std::filesystem::path file;
    std::optional<Result<ClientDescriptor>> descriptor;  // nullopt: the file is empty, and masks
  };
  static std::vector<Installed> installed();

  // The first that recognises the process, or null. More than one is logged.
  virtual std::shared_ptr<const ClientDescriptor> descriptorForProcess(
      const ProcessIdentity& process) = 0;
  // Whether the last question could look at everything that is installed; else whom it did not find
  // may be there all the same.
  virtual bool isComplete() = 0;
  // The client with the identifier, whether its descriptor recognises processes or not; or null.
  virtual std::shared_ptr<const HSStoreClient> clientWithIdentifier(
      std::string_view identifier) = 0;
  // The client of the type whose identifier comes first, or null.
  virtual std::shared_ptr<const HSStoreClient> clientWithType(std::int64_t clientType) = 0;
};

}  // namespace tallow
