#pragma once

#include <algorithm>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace tallow {

// Where this instance of the service keeps things: the XDG base directories, each with "tallowd"
// appended (preferences, Cookies, caches, state, client descriptors). Under the system manager the
// unit's CONFIGURATION/STATE/CACHE directories are given through the same XDG variables.
// Read from the environment once, at first use; tests replace it (SharedInstance.h).
class Directories {
 public:
  std::filesystem::path configHome;               // $XDG_CONFIG_HOME/tallowd
  std::filesystem::path dataHome;                 // $XDG_DATA_HOME/tallowd
  std::filesystem::path cacheHome;                // $XDG_CACHE_HOME/tallowd
  std::filesystem::path stateHome;                // $XDG_STATE_HOME/tallowd
  std::vector<std::filesystem::path> configDirs;  // configHome, then $XDG_CONFIG_DIRS/tallowd ...
  std::vector<std::filesystem::path> dataDirs;    // dataHome, then $XDG_DATA_DIRS/tallowd ...

  // Relative values in the variables are ignored, as the base directory standard asks.
  static Directories fromEnvironment();
  // Those of everybody, without the user's own: for whatever says what the service may do or whom
  // it trusts, since the confined service can write to its user's folders.
  std::span<const std::filesystem::path> systemConfigDirs() const {
    return std::span(configDirs).subspan(std::min<std::size_t>(1, configDirs.size()));
  }
  std::span<const std::filesystem::path> systemDataDirs() const {
    return std::span(dataDirs).subspan(std::min<std::size_t>(1, dataDirs.size()));
  }
  static Directories& shared();
};

// The file of authorities that are trusted for https in place of the system's, from TALLOW_CA_FILE;
// empty where that names none, or not by an absolute path.
std::filesystem::path authoritiesFile();

// Whether `name` may become one component of a path: not empty, no separator, no NUL or control
// character, not "." or "..", at most 200 bytes. What comes from a client descriptor or the bus and
// ends up in a file name passes through here.
bool isSafePathComponent(std::string_view name);

// Makes `path` and missing parents with mode 0700. False when that is not possible.
bool ensureDirectoryExists(const std::filesystem::path& path);

}  // namespace tallow
