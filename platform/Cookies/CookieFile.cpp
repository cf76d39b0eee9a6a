#include "platform/Cookies/CookieFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/FileDescriptor.h"
#include "platform/Base/FolderLock.h"
#include "platform/Cookies/CookieJar.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

Error fileError(int code) {
  return makeError(CookieJar::kClassName, code, std::strerror(code));
}

}  // namespace

std::optional<Error> CookieFile::prepare() {
  _isUnreadable = false;
  // Only ever opened here when it is new: closing a descriptor would release the locks that this
  // process holds on the file through another one.
  const FileDescriptor made(
      ::open(_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly));
  const int whyNot = errno;

  struct stat status {};
  if (::lstat(_path.c_str(), &status) != 0) return fileError(made ? errno : whyNot);
  _device = status.st_dev;
  _node = status.st_ino;
  if (!S_ISREG(status.st_mode)) {
    _isUnreadable = true;
    return fileError(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  }
  if (::access(_path.c_str(), R_OK) != 0) {
    const int code = errno;
    _isUnreadable = true;
    return fileError(code);
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    if (::chmod(_path.c_str(), status.st_mode & S_IRWXU) != 0) {
      logLevel(2, "%@: Others may read %@ (%s)", CookieJar::kClassName, _path.native(),
               std::strerror(errno));
    }
  }
  return std::nullopt;
}

bool CookieFile::isReplaced() const {
  struct stat status {};
  return ::lstat(_path.c_str(), &status) != 0 || status.st_dev != _device || status.st_ino != _node;
}

bool CookieFile::hasLog() const {
  struct stat status {};
  return ::stat(_beside("-wal").c_str(), &status) == 0 && status.st_size > 0;
}

void CookieFile::setAside() {
  const FolderLock lock(_path.parent_path());
  if (isReplaced()) return;
  // The log first: left beside a fresh file it would be read into it.
  for (const std::filesystem::path& path : {_beside("-wal"), _path}) {
    if (path != _path && !hasLog()) continue;
    const Result<std::filesystem::path> moved = setAsideAsCorrupt(path);
    if (moved) {
      logLevel(1, "%@: %@ is damaged and was moved to %@", CookieJar::kClassName, path.native(),
               moved->native());
    } else {
      logLevel(1, "%@: %@ is damaged and could not be moved aside: %@", CookieJar::kClassName,
               path.native(), moved.error());
      return;
    }
  }
  for (const char* const suffix : {"-wal", "-shm"}) ::unlink(_beside(suffix).c_str());
}

std::filesystem::path CookieFile::_beside(const char* suffix) const {
  std::filesystem::path path = _path;
  path += suffix;
  return path;
}

}  // namespace tallow
