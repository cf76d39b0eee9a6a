#include "platform/Orv/OrvLibraryFile.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "platform/Base/AtomicFile.h"
#include "platform/Orv/OrvLibrary.h"
#include "platform/Orv/OrvStatus.h"
#include "platform/Orv/tallow-orv.h"
#include "platform/Preferences/TOML.h"
#include "platform/VendBase/DefaultsKeys.h"

namespace tallow::OrvLibraryFile {

namespace {

constexpr std::size_t kLargestPreferences = 1u << 20;
constexpr const char* kSymbol = "tallow_orv_get_library";

Error unusable(const std::filesystem::path& file, const std::string& why) {
  return makeError(OrvLibrary::kErrorDomain, kOrvNoLibrary, file.native() + ": " + why);
}

}  // namespace

Result<std::optional<std::filesystem::path>> administratorsChoice(
    const std::filesystem::path& folder) {
  using Choice = std::optional<std::filesystem::path>;
  const std::filesystem::path file = folder / (std::string(kDaemonDefaultsID) + ".toml");
  const Result<Data> text = readFile(file, kLargestPreferences);
  if (!text && (text.error().code == ENOENT || text.error().code == ENOTDIR)) return Choice();
  if (!text) return text.error();
  const Result<Dictionary> preferences = TOML::decode(text->view());
  if (!preferences) return unusable(file, preferences.error().localizedDescription());
  const Value& named = (*preferences)[kDefaultsMachineIdentityLibraryKey];
  if (named.isNil()) return Choice();
  if (named.string() == nullptr) return unusable(file, "names a library that is no text");
  if (auto objection = objectionTo(file)) return *std::move(objection);
  return Choice(*named.string());
}

std::optional<Error> objectionTo(const std::filesystem::path& file) {
  if (!file.is_absolute()) return unusable(file, "is no absolute path");
  std::filesystem::path place;
  for (const std::filesystem::path& component : file) {
    place /= component;
    struct stat status {};
    // Links are refused rather than followed: where one leads would have to be asked all over.
    if (::lstat(place.c_str(), &status) != 0) return unusable(place, std::strerror(errno));
    if (S_ISLNK(status.st_mode)) return unusable(place, "is a link");
    if (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
      return unusable(place, "can be changed by others than root");
    const bool isLast = place == file;
    if (isLast ? !S_ISREG(status.st_mode) : !S_ISDIR(status.st_mode))
      return unusable(place, isLast ? "is no file" : "is no folder");
  }
  return std::nullopt;
}

Result<const tallow_orv_library*> load(const std::filesystem::path& file) {
  if (auto objection = objectionTo(file)) return *std::move(objection);
  return loadUnchecked(file);
}

Result<const tallow_orv_library*> loadUnchecked(const std::filesystem::path& file) {
  // Never closed: its threads and tables may outlive whoever asked for it.
  void* const library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* const why = ::dlerror();
    return unusable(file, why == nullptr ? "cannot be loaded" : why);
  }
  using GetLibrary = const tallow_orv_library* (*)(std::uint32_t);
  const auto getLibrary = reinterpret_cast<GetLibrary>(::dlsym(library, kSymbol));
  if (getLibrary == nullptr) return unusable(file, std::string("has no ") + kSymbol);
  const tallow_orv_library* const table = getLibrary(TALLOW_ORV_VERSION);
  if (table == nullptr) return unusable(file, "does not serve version 1 of the interface");
  return table;
}

}  // namespace tallow::OrvLibraryFile
