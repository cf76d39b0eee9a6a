#pragma once

#include <filesystem>

#include "platform/Base/FileDescriptor.h"

namespace tallow {

// Excludes other processes, and other threads of this one, that make, open or set aside a file in
// the same folder, for as long as it lives. On the folder, so that the lock is not lost with the
// file. Where the folder cannot be opened, or somebody keeps it for five seconds (a process that
// was stopped in the middle), it excludes nobody. Hold it only for a moment.
class FolderLock {
 public:
  explicit FolderLock(const std::filesystem::path& folder);

 private:
  const FileDescriptor _folder;
};

}  // namespace tallow
