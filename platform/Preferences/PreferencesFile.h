#pragma once

#include <compare>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/Base/Data.h"
#include "platform/Base/Result.h"

namespace tallow {

// One opened preferences file: a SQLite database in WAL mode with one row per domain, host and key.
// What goes wrong is answered as an Error of domain kErrorDomain whose code is a Failure and whose
// description is the database's.
//
// Owned by SQLitePreferences, which serializes all calls. Other processes may use the same file at
// any moment; a call waits a few seconds for them.
class PreferencesFile {
 public:
  static constexpr const char* kErrorDomain = "Preferences";
  // The layout this program writes, kept as the database's user_version.
  static constexpr int kFormatVersion = 1;

  enum class Failure : std::int64_t {
    Refused = 1,     // the disk, its permissions or a busy neighbour; trying again may help
    Corrupt = 2,     // the contents are damaged
    NewerFormat = 3  // written by a newer program; not to be touched
  };

  struct Place {
    std::string domain, host, key;
    friend auto operator<=>(const Place&, const Place&) = default;
  };

  // Opens the file, making it (0600) and its folder (0700) if needed. A file that can be read but
  // not written, because of its folder, its permissions or a full disk, opens for reading only.
  static Result<std::unique_ptr<PreferencesFile>> open(const std::filesystem::path& path);
  ~PreferencesFile();

  bool isWritable() const;
  // Whether `path` still leads to this file: it may have been removed or set aside.
  bool isAt(const std::filesystem::path& path) const;

  // A number that changes whenever somebody else has committed to the file.
  Result<std::int64_t> dataVersion();
  // The value's bytes, nullopt when there is no such row.
  Result<std::optional<Data>> read(const Place& place);

  // The keys of the rows of a domain and host.
  Result<std::set<std::string>> keys(std::string_view domain, std::string_view host);

  // A transaction that excludes every other writer; inside it reads see the newest state. Ends with
  // commit() or rollback(); a failed commit is rolled back.
  std::optional<Error> beginWriting();
  // Nullopt removes the row.
  std::optional<Error> write(const Place& place, const std::optional<Data>& bytes);
  std::optional<Error> commit();
  void rollback();

  // Brings everything committed so far to the disk itself.
  std::optional<Error> makeDurable();

  // Moves a damaged file out of the way, with its log, unless somebody has done so: `damaged` is
  // the file as it was opened, or null when it could not be opened.
  static std::optional<Error> setAside(const std::filesystem::path& path,
                                       std::unique_ptr<PreferencesFile> damaged);

 private:
  struct Database;
  explicit PreferencesFile(std::unique_ptr<Database> database);
  static Result<std::unique_ptr<PreferencesFile>> openLocked(const std::filesystem::path& path);

  const std::unique_ptr<Database> _database;
};

}  // namespace tallow
