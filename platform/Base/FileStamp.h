#pragma once

#include <cstdint>
#include <optional>

struct stat;

namespace tallow {

// What tells one state of a file from another: which file it is, its size, and when it was last
// changed in any way. Nobody can set that time, so a file that is put back with its old dates is
// seen to be another, too. A value.
struct FileStamp {
  std::uint64_t device = 0, inode = 0;
  std::int64_t size = 0, changedSeconds = 0, changedNanoseconds = 0;

  // Of what the path leads to, links followed; nothing, and errno, where that cannot be told.
  static std::optional<FileStamp> at(const char* path);
  static FileStamp of(const struct stat& status);

  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

}  // namespace tallow
