#include "platform/Preferences/AdministratorPreferences.h"

#include <cerrno>
#include <utility>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Preferences/Preferences.h"
#include "platform/Preferences/TOML.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr double kSecondsBetweenAttempts = 1;

}  // namespace

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
  const std::optional<FileStamp> stamp = FileStamp::at(path.c_str());
  if (!stamp && !mayPass(errno)) {
    _files.erase(path);
    return nullptr;
  }
  const auto [found, isNew] = _files.try_emplace(path);
  File& file = found->second;
  const double now = Clock::shared().monotonicSeconds();
  const bool isDue = file.readAgainAt && now >= *file.readAgainAt;
  if (!stamp || (!isNew && file.stamp == *stamp && !isDue)) return &file.values;
  file.stamp = *stamp;
  file.readAgainAt.reset();
  if (Result<Dictionary> read = TOML::decodeFile(path)) {
    file.values = *std::move(read);
  } else {
    if (mayPass(read.error())) file.readAgainAt = now + kSecondsBetweenAttempts;
    logLevel(1, "%@: cannot use %@: %@", Preferences::kClassName, path.native(),
             read.error().localizedDescription());
  }
  return &file.values;
}

}  // namespace tallow
