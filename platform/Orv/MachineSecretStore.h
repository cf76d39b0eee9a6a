#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Base/Data.h"
#include "platform/Base/FileStamp.h"
#include "platform/Orv/MachineSecret.h"
#include "platform/Orv/OrvCrypto.h"

namespace tallow {

// The files of one folder that hold a machine's secrets, one per DSID, named DSID.identity: a magic
// word and a version, and the secret sealed under a key of this machine (docs/machine-identity.md).
// Mode 0600; written so that at any moment the old or the new one is there, whole; a removed one
// stays removed.
//
// Only what is sealed stays in memory between two calls; that somebody else has changed a file is
// noticed within a second. Statuses are those of a machine-identity
// library (OrvStatus.h). Owned by the built-in library, used by one thread at a time.
class MachineSecretStore {
 public:
  // Told what a person should know: level and text.
  using Log = std::function<void(int level, const std::string& line)>;

  MachineSecretStore(std::filesystem::path folder, const OrvCrypto::Key& machineKey, Log log);

  // Whether load() needs to look at nothing but memory.
  bool isInMemory(std::uint64_t dsID) const;
  // kOrvNotProvisioned where there is none that can be used: none at all, a damaged one (which is
  // set aside), or one that others could read.
  std::int32_t load(std::uint64_t dsID, MachineSecret& secret);
  std::int32_t save(std::uint64_t dsID, const MachineSecret& secret);
  // Nothing there is a success.
  std::int32_t remove(std::uint64_t dsID);
  // Whether a file is there that a newer program has written: it is neither replaced nor removed.
  bool isFromTheFuture(std::uint64_t dsID) const;
  // Those that have a file, in order.
  std::vector<std::uint64_t> dsIDs() const;

 private:
  struct Sealed {
    FileStamp stamp;  // of the file that was read
    Data contents;
    double lookedAt = 0;  // when the file was last seen to be still that one; monotonic
  };

  std::string pathOf(std::uint64_t dsID) const;
  std::int32_t read(std::uint64_t dsID, Data& contents);
  void setAside(std::uint64_t dsID, const char* why);
  // Says once what is wrong with a file, until it is written again.
  void complain(std::uint64_t dsID, const std::string& line);

  const std::filesystem::path _folder;
  const OrvCrypto::Key _machineKey;
  const Log _log;
  const std::uint32_t _owner;  // whose the files have to be: this process's user
  std::unordered_map<std::uint64_t, Sealed> _sealed;
  std::set<std::uint64_t> _complained;
};

}  // namespace tallow
