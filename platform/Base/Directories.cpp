#include "platform/Base/Directories.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/Base/SharedInstance.h"

namespace tallow {

namespace {

namespace fs = std::filesystem;

constexpr const char* kFolder = "tallowd";
constexpr std::size_t kMaxComponentBytes = 200;

std::optional<fs::path> absolutePath(const char* text) {
  if (text == nullptr || text[0] != '/') return std::nullopt;
  return fs::path(text);
}

fs::path homeFromUserDatabase() {
  std::vector<char> buffer(16 * 1024);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
    if (const auto home = absolutePath(found->pw_dir)) return *home;
  }
  // Nowhere to keep anything: every write fails, and is logged, rather than landing somewhere odd.
  return "/nonexistent";
}

fs::path home() {
  const auto given = absolutePath(std::getenv("HOME"));
  return given ? *given : homeFromUserDatabase();
}

fs::path base(const char* variable, const char* belowHome) {
  const auto given = absolutePath(std::getenv(variable));
  return (given ? *given : home() / belowHome) / kFolder;
}

std::vector<fs::path> searchPath(const fs::path& first, const char* variable,
                                 std::string_view standard) {
  std::vector<fs::path> result{first};
  const char* given = std::getenv(variable);
  std::string_view rest = given != nullptr && given[0] != '\0' ? given : standard;
  while (!rest.empty()) {
    const std::size_t length = std::min(rest.find(':'), rest.size());
    const std::string entry(rest.substr(0, length));
    rest.remove_prefix(std::min(length + 1, rest.size()));
    const auto folder = absolutePath(entry.c_str());
    if (folder) result.push_back(*folder / kFolder);
  }
  return result;
}

bool isDirectory(const fs::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

Directories Directories::fromEnvironment() {
  Directories result;
  result.configHome = base("XDG_CONFIG_HOME", ".config");
  result.dataHome = base("XDG_DATA_HOME", ".local/share");
  result.cacheHome = base("XDG_CACHE_HOME", ".cache");
  result.stateHome = base("XDG_STATE_HOME", ".local/state");
  result.configDirs = searchPath(result.configHome, "XDG_CONFIG_DIRS", "/etc/xdg");
  result.dataDirs = searchPath(result.dataHome, "XDG_DATA_DIRS", "/usr/local/share:/usr/share");
  return result;
}

Directories& Directories::shared() {
  return SharedInstance<Directories>::get(
      [] { return std::make_unique<Directories>(fromEnvironment()); });
}

fs::path authoritiesFile() {
  return absolutePath(std::getenv("TALLOW_CA_FILE")).value_or(fs::path());
}

bool isSafePathComponent(std::string_view name) {
  if (name.empty() || name.size() > kMaxComponentBytes || name == "." || name == "..") return false;
  return std::none_of(name.begin(), name.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return c == '/' || byte < 0x20 || byte == 0x7f;
  });
}

bool ensureDirectoryExists(const fs::path& path) {
  if (isDirectory(path)) return true;
  fs::path made;
  for (const fs::path& component : path) {
    made /= component;
    // What exists already, a link to a directory included, keeps its mode.
    if (mkdir(made.c_str(), S_IRWXU) != 0 && !isDirectory(made)) return false;
  }
  return isDirectory(path);
}

}  // namespace tallow
