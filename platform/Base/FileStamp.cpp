#include "platform/Base/FileStamp.h"

#include <sys/stat.h>

namespace tallow {

std::optional<FileStamp> FileStamp::at(const char* path) {
  struct stat status {};
  if (stat(path, &status) != 0) return std::nullopt;
  return of(status);
}

FileStamp FileStamp::of(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec,
          status.st_ctim.tv_nsec};
}

}  // namespace tallow
