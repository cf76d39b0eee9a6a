#include "platform/Cookies/CookieJar.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform/Base/Directories.h"
#include "platform/Cookies/SQLiteCookieJar.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

std::shared_ptr<CookieJar> jarOfProcess(const std::filesystem::path& folder,
                                        const std::string& fileName) {
  static std::mutex& mutex = *new std::mutex;
  static auto& jars = *new std::map<std::filesystem::path, std::shared_ptr<CookieJar>>;
  const std::lock_guard lock(mutex);
  std::shared_ptr<CookieJar>& jar = jars[folder / fileName];
  if (jar != nullptr) return jar;
  if (!isSafePathComponent(fileName)) {
    logLevel(1, "%@: \"%@\" cannot name a jar", CookieJar::kClassName, fileName);
    return nullptr;
  }
  if (!ensureDirectoryExists(folder)) {
    logLevel(1, "%@: Cannot make the folder %@", CookieJar::kClassName, folder.native());
    return nullptr;
  }
  if (auto opened = CookieJar::open(folder / fileName)) jar = std::move(*opened);
  return jar;
}

}  // namespace

Result<std::unique_ptr<CookieJar>> CookieJar::open(const std::filesystem::path& path) {
  return open(path, Limits());
}

Result<std::unique_ptr<CookieJar>> CookieJar::open(const std::filesystem::path& path,
                                                   Limits limits) {
  return SQLiteCookieJar::open(path, limits);
}

std::shared_ptr<CookieJar> CookieJar::shared() {
  return jarOfProcess(Directories::shared().dataHome / "Cookies", "default.cookies");
}

std::shared_ptr<CookieJar> CookieJar::sharedForGroupContainer(std::string_view identifier) {
  return jarOfProcess(Directories::shared().dataHome / "Cookies" / "Groups",
                      std::string(identifier) + ".cookies");
}

}  // namespace tallow
