#include "platform/Preferences/AdministratorPreferences.h"

#include <sys/stat.h>

#include <utility>

#include "platform/Base/Directories.h"
#include "platform/Preferences/Preferences.h"
#include "platform/Preferences/TOML.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {}  // namespace

AdministratorPreferences::AdministratorPreferences(std::vector<std::filesystem::path> folders)
    : _folders(std::move(folders)) {}

Value AdministratorPreferences::value(std::string_view key, std::string_view domain) {
  const std::string name = std::string(domain) + ".toml";
  if (!isSafePathComponent(domain) || !isSafePathComponent(name)) return {};
  const std::lock_guard lock(_mutex);
  for (const std::filesystem::path& folder : _folders) {
    const Dictionary* const values = valuesOf(folder / name);
    if (values != nullptr && values->contains(key)) return (*values)[key];
  }
  return {};
}

std::set<std::string> AdministratorPreferences::keys(std::string_view domain) {
  std::set<std::string> keys;
  const std::string name = std::string(domain) + ".toml";
  if (!isSafePathComponent(domain) || !isSafePathComponent(name)) return keys;
  const std::lock_guard lock(_mutex);
  for (const std::filesystem::path& folder : _folders) {
    const Dictionary* const values = valuesOf(folder / name);
    if (values == nullptr) continue;
    for (const auto& entry : *values) keys.insert(entry.key);
  }
  return keys;
}

const Dictionary* AdministratorPreferences::valuesOf(const std::filesystem::path& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    _files.erase(path);
    return nullptr;
  }
  const Stamp stamp{status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                    status.st_mtim.tv_nsec};
  const auto [found, isNew] = _files.try_emplace(path);
  File& file = found->second;
  if (!isNew && file.stamp == stamp) return &file.values;
  file.stamp = stamp;
  if (Result<Dictionary> read = TOML::decodeFile(path)) {
    file.values = *std::move(read);
  } else {
    logLevel(1, "%@: cannot use %@: %@", Preferences::kClassName, path.native(),
             read.error().localizedDescription());
  }
  return &file.values;
}

}  // namespace tallow
