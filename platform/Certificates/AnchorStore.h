#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Base/Date.h"

namespace tallow {

// The trust anchors of signed documents: every certificate in the files anchors/*.pem of the
// system's configuration directories (not of the user's own, where a confined service could write
// its own trust), whatever its issuer.
//
// current() looks at the files' names, sizes and times on every call (a few system calls) and reads
// them again only when something has changed. A file that cannot be read or decoded is logged once
// per change and contributes nothing; the others still count. One per process, made on first use.
// Callable from any thread.
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
  // What tells one state of the anchor files from another.
  struct FileState {
    std::filesystem::path path;
    std::uint64_t device = 0, inode = 0, size = 0;
    std::int64_t modifiedSeconds = 0, modifiedNanoseconds = 0;
    std::int64_t changedSeconds = 0, changedNanoseconds = 0;

    friend bool operator==(const FileState&, const FileState&) = default;
  };

  static std::vector<FileState> scan();
  static Anchors load(const std::vector<FileState>& files);

  std::mutex _lock;
  std::vector<FileState> _files;
  Anchors _anchors;
};

}  // namespace tallow
