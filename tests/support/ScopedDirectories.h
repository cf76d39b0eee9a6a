#pragma once

#include <filesystem>

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"

namespace tallow {

// While it lives, the service's folders, and one of the system's in either list, are in a place of
// a test's own; it makes none of them.
class ScopedDirectories : public Directories {
 public:
  explicit ScopedDirectories(const std::filesystem::path& root) {
    configHome = root / "config/tallowd";
    dataHome = root / "data/tallowd";
    cacheHome = root / "cache/tallowd";
    stateHome = root / "state/tallowd";
    configDirs = {configHome, root / "etc/tallowd"};
    dataDirs = {dataHome, root / "share/tallowd"};
  }

 private:
  ScopedShared<Directories> _shared{*this};
};

}  // namespace tallow
