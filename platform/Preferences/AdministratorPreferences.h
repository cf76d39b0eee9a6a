#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/FileStamp.h"
#include "platform/Base/Value.h"

namespace tallow {

// The preferences of any user, as administrators write them: FOLDER/DOMAIN.toml, one key per entry,
// in several folders of which the first that has a key wins. The files belong to the machine they
// are on, so a value is one for the current host and for any host alike.
//
// A changed file counts at the next read. One that cannot be read or understood is logged once, and
// what it said before stays; one that could not be read in passing is read again within a second.
// Owned by SQLitePreferences; any thread.
class AdministratorPreferences {
 public:
  explicit AdministratorPreferences(std::vector<std::filesystem::path> folders);

  Value value(std::string_view key, std::string_view domain);
  std::set<std::string> keys(std::string_view domain);

 private:
  struct File {
    FileStamp stamp;
    Dictionary values;
    std::optional<double> readAgainAt;  // monotonic; nullopt: not before it changes
  };

  // The file's values, read again if it has changed; null when there is no such file.
  const Dictionary* valuesOf(const std::filesystem::path& path);

  const std::vector<std::filesystem::path> _folders;
  std::mutex _mutex;
  std::map<std::filesystem::path, File> _files;  // those that exist, or did when last seen
};

}  // namespace tallow
