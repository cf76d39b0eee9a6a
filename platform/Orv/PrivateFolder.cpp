#include "platform/Orv/PrivateFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Base/Directories.h"
#include "platform/Base/FileDescriptor.h"

namespace tallow {

bool ensurePrivateFolder(const std::filesystem::path& folder) {
  if (!ensureDirectoryExists(folder)) return false;
  const FileDescriptor opened(
      ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  return opened && ::fstat(opened.get(), &status) == 0 && status.st_uid == ::geteuid() &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace tallow
