#include "platform/Base/FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace tallow {

FolderLock::FolderLock(const std::filesystem::path& folder)
    : _folder(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!_folder) return;
  while (::flock(_folder.get(), LOCK_EX) != 0 && errno == EINTR) continue;
}

}  // namespace tallow
