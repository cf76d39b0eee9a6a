#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/Error.h"
#include "platform/Preferences/AdministratorPreferences.h"
#include "platform/Preferences/Preferences.h"
#include "platform/Preferences/PreferencesFile.h"

namespace tallow {

class Directories;

// The preferences of this machine: one SQLite file for the current user, the administrators' files
// for any user.
//
// Every change first becomes pending, then all that is pending is written in one transaction; what
// the disk refuses stays pending, is what readers of this process see, and is tried again with the
// next write or synchronize. Values that were read are kept decoded, and are good until the file
// tells that another process has written. A damaged file is set aside and a new one made, with what
// this process still knows. Any thread; calls wait for one another.
class SQLitePreferences final : public Preferences {
 public:
  struct Configuration {
    std::filesystem::path file;  // ".../preferences.db"
    std::vector<std::filesystem::path>
        administratorFolders;    // of DOMAIN.toml, most important first
    std::string hostIdentifier;  // stands for the current host; not empty
  };
  static Configuration configurationFor(const Directories& directories);

  // Touches no file; the first use does, and the first write makes it.
  explicit SQLitePreferences(Configuration configuration);
  ~SQLitePreferences() override;

  Value copyValue(std::string_view key, std::string_view domain, User user, Host host) override;
  Result<Value> tryToCopyValue(std::string_view key, std::string_view domain, Host host) override;
  std::vector<std::string> copyAppKeyList(std::string_view domain) override;
  void setValue(std::string_view key, const Value& value, std::string_view domain, User user,
                Host host) override;
  bool synchronize(std::string_view domain, User user, Host host) override;
  bool update(std::string_view domain, const std::function<void(Editor&)>& change) override;

  // Changes that wait for the disk, for status reports.
  std::size_t pendingChanges() const;

 private:
  using Place = PreferencesFile::Place;
  struct Change {
    Value value;                // nil removes
    std::optional<Data> bytes;  // its encoding
  };
  using Changes = std::map<Place, Change>;
  class UpdateEditor;

  Place placeFor(std::string_view key, std::string_view domain, Host host) const;
  // Nullopt, logged, for a value that could not be read back.
  static std::optional<Change> changeFor(const Place& place, const Value& value);

  // The functions below run with the mutex held.
  bool ensureOpen(bool isForWriting);
  bool mayTryToOpen() const;
  bool fileExists() const;
  bool open();
  void close();
  // Any failure is logged, and nil.
  Value read(const Place& place);
  Result<Value> tryToRead(const Place& place);
  Result<Value> readFromFile(const Place& place);
  std::optional<Error> dropCacheIfOthersWrote();
  void remember(const Place& place, const Value& value, std::size_t bytes);
  void clearCache();
  // Each logs its failure. writePending() is both steps; what it does not get to disk stays
  // pending.
  bool writePending();
  bool beginWriting();
  bool commitPending();
  // Logs the failure; sets a damaged file aside. True when trying again may help.
  bool recoverFrom(const Error& error, const char* action);

  const Configuration _configuration;
  AdministratorPreferences _administrators;

  mutable std::mutex _mutex;  // guards everything below
  std::unique_ptr<PreferencesFile> _file;
  std::optional<double> _failedToOpenSeconds;  // when it last did, on the monotonic clock
  bool _isWriting = false;  // between beginWriting() and the end of its transaction
  bool _isDurable = true;   // nothing written since the last synchronize
  Changes _pending;
  // While update() writes: what will be pending if that fails.
  std::optional<Changes> _pendingIfRefused;
  std::map<Place, Value> _cache;  // nil for what is known to be absent
  std::size_t _cachedBytes = 0;
  std::int64_t _cacheVersion = 0;
};

}  // namespace tallow
