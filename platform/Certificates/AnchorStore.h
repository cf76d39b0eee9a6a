#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/Date.h"
#include "platform/Base/FileStamp.h"

namespace tallow {

// The trust anchors of signed documents: every certificate in the files anchors/*.pem of the
// system's configuration directories (not of the user's own, where a confined service could write
// its own trust), whatever its issuer.
//
// current() looks at the files' names, sizes and times on every call (a few system calls) and reads
// them again only when something has changed, or could not be read in passing. A file that cannot
// be read or decoded is logged once per change and contributes nothing; the others still count. One
// per process, made on first use. Callable from any thread.
class AnchorStore {
 public:
  static constexpr const char* kClassName = "AnchorStore";  // in log lines

  static AnchorStore& shared();

  AnchorStore() = default;
  virtual ~AnchorStore() = default;
  AnchorStore(const AnchorStore&) = delete;
  AnchorStore& operator=(const AnchorStore&) = delete;

  struct Anchors {
    std::shared_ptr<void> store;  // the cryptographic library's own store of certificates
    std::size_t count = 0;
  };
  // The anchors as they are now. Stays usable when the files change later.
  Anchors current();

  // One certificate of an anchor file as a person would ask about it; for a file that holds none
  // that can be read, `problem` says why.
  struct Certificate {
    std::filesystem::path file;
    std::string subject;
    Date notBefore, notAfter;
    std::string problem;
  };
  // All of the files as they are now, for reports.
  static std::vector<Certificate> installed();

 private:
  // In order of their paths.
  using Files = std::vector<std::pair<std::filesystem::path, FileStamp>>;

  // `isWhole`: else a folder could not be listed just now.
  static Files scan(bool& isWhole);
  // `isWhole`: else a file could not be read just now.
  static Anchors load(const Files& files, bool& isWhole);

  std::mutex _lock;
  Files _files;
  Anchors _anchors;
  std::optional<double> _readAgainAt;  // monotonic; nullopt: not before something changes
};

}  // namespace tallow
