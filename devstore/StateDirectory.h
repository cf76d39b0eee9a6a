#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "devstore/Identity.h"
#include "platform/Base/Result.h"

namespace tallow::devstore {

// The folder in which the store keeps its keys and leaves its certificates for others to trust.
// Held by one running store at a time. Used while the store starts, on one thread.
class StateDirectory {
 public:
  // Makes the folder (mode 0700) where it is missing and takes hold of it.
  static Result<std::unique_ptr<StateDirectory>> open(const std::filesystem::path& path);
  ~StateDirectory();

  StateDirectory(const StateDirectory&) = delete;
  StateDirectory& operator=(const StateDirectory&) = delete;

  // The identity kept under keys/NAME.pem; nullopt when there is none yet, an error when the file
  // is damaged.
  Result<std::optional<Identity>> identity(const std::string& name) const;
  std::optional<Error> keepIdentity(const std::string& name, const Identity& identity) const;
  std::optional<Error> writeFile(const std::filesystem::path& relativePath,
                                 const Data& contents) const;
  // Forgets every key.
  std::optional<Error> forgetIdentities() const;

 private:
  StateDirectory(std::filesystem::path path, int lock);

  const std::filesystem::path _path;
  const int _lock;  // the file whose lock says that a store runs here
};

}  // namespace tallow::devstore
