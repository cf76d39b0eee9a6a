#include "platform/Base/FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace tallow {

namespace {

constexpr std::chrono::seconds kPatience{5};
constexpr std::chrono::milliseconds kInterval{5};

}  // namespace

FolderLock::FolderLock(const std::filesystem::path& folder)
    : _folder(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!_folder) return;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (::flock(_folder.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR && errno != EWOULDBLOCK) return;
    if (std::chrono::steady_clock::now() >= deadline) return;
    std::this_thread::sleep_for(kInterval);
  }
}

}  // namespace tallow
