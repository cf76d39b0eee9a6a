#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Cookies/CookieDatabase.h"
#include "platform/Cookies/CookieJar.h"
#include "platform/Cookies/CookieTable.h"

namespace tallow {

// The jar: a CookieTable in memory and a CookieDatabase on disk.
//
// A change takes the database's write lock, reads what other processes have written in the
// meantime, changes the table, and writes the difference. When that fails, the difference is kept
// and goes out with the next change. When a cookie was last sent is written at most once an hour,
// by synchronize(), and when the jar is closed.
//
// Callable from any thread, under one lock.
class SQLiteCookieJar final : public CookieJar {
 public:
  static constexpr const char* kClassName = "CookieJar";

  static Result<std::unique_ptr<CookieJar>> open(const std::filesystem::path& path, Limits limits);
  ~SQLiteCookieJar() override;

  std::vector<CookiePointer> cookiesForURL(const URL& url, bool secureAllowed) override;
  std::vector<CookieDecision> setCookies(const std::vector<ParsedCookie>& cookies,
                                         const URL& url) override;
  void deleteAllCookies() override;
  std::optional<Error> synchronize() override;
  std::size_t count() override;

 private:
  SQLiteCookieJar(const std::filesystem::path& path, Limits limits);

  // Opens the file and takes in its cookies; a damaged one is set aside.
  std::optional<Error> _attach();
  void _setAside();
  std::optional<Error> _reload();
  void _reloadIfChanged();

  // Takes the write lock, with the table up to date. An error, logged, when the change has to stay
  // in memory for now.
  std::optional<Error> _beginChange();
  std::optional<Error> _tryToBeginChange();
  // Writes what is unsaved and gives the lock back, which `begun` tells is held.
  std::optional<Error> _endChange(const std::optional<Error>& begun);
  std::optional<Error> _commit();
  void _saveUses();

  CookieDecision _store(CookiePolicy::Judgement judgement, bool secureOrigin, Date now);

  std::mutex _mutex;
  const Limits _limits;
  CookieDatabase _database;
  CookieTable _table;
  // How many changes have been written, and how many of them are known to survive a power cut.
  std::uint64_t _changes = 0, _synchronizedChanges = 0;
  double _usesSavedAt;  // monotonic seconds
};

}  // namespace tallow
