#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <utility>

#include "platform/Base/Result.h"

namespace tallow {

// The file of a cookie jar as the file system sees it: made for its owner alone, recognised again
// when somebody has put another one in its place, and moved aside when it is damaged. What is in it
// is CookieDatabase's business; so are the two files beside it, NAME-wal and NAME-shm, except that
// they go where the jar goes.
//
// Owned by a CookieDatabase. Error domain "CookieJar", code = errno.
class CookieFile {
 public:
  explicit CookieFile(std::filesystem::path path) : _path(std::move(path)) {}

  const std::filesystem::path& path() const { return _path; }

  // Makes the file if there is none (mode 0600), takes everybody else's rights away if there is
  // one, and remembers it. An error if it cannot be made or cannot be read.
  std::optional<Error> prepare();
  // True if prepare() failed on a file that is there.
  bool isUnreadable() const { return _isUnreadable; }
  // True when the path no longer leads to the file that prepare() found.
  bool isReplaced() const;
  // True when changes wait in the log beside the file.
  bool hasLog() const;

  // Moves the file and its log aside under a .corrupt name, unless somebody else has done it.
  // Nothing may have the file open in this process. Logs where it went, or why it could not be
  // moved.
  void setAside();

 private:
  std::filesystem::path _beside(const char* suffix) const;

  std::filesystem::path _path;
  bool _isUnreadable = false;
  dev_t _device = 0;
  ino_t _node = 0;
};

}  // namespace tallow
