#include "platform/Cookies/SQLiteCookieJar.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

constexpr double kUsesSavedEverySeconds = 60.0 * 60;

}  // namespace

Result<std::unique_ptr<CookieJar>> SQLiteCookieJar::open(const std::filesystem::path& path,
                                                         Limits limits) {
  std::unique_ptr<SQLiteCookieJar> jar(new SQLiteCookieJar(path, limits));
  if (const auto problem = jar->_attach()) {
    if (jar->_database.isUnreadable()) {
      logLevel(1, "%@: Cannot read %@: %@", kClassName, path.native(), *problem);
      return *problem;
    }
    logLevel(1, "%@: Cannot use %@ (%@); its cookies are kept in memory", kClassName, path.native(),
             *problem);
  }
  return std::unique_ptr<CookieJar>(std::move(jar));
}

SQLiteCookieJar::SQLiteCookieJar(const std::filesystem::path& path, Limits limits)
    : _limits(limits), _database(path), _usesSavedAt(Clock::shared().monotonicSeconds()) {}

SQLiteCookieJar::~SQLiteCookieJar() {
  if (!_table.isSaved()) _endChange(_beginChange());
  _saveUses();
}

std::vector<CookiePointer> SQLiteCookieJar::cookiesForURL(const URL& url, bool secureAllowed) {
  const Date now = Clock::shared().now();
  const std::lock_guard lock(_mutex);
  _reloadIfChanged();
  const auto matches = _table.match(url, secureAllowed, now);
  std::vector<CookiePointer> cookies;
  cookies.reserve(matches.size());
  for (const CookieTable::Match& match : matches) cookies.push_back(match.share());
  return cookies;
}

std::vector<CookieDecision> SQLiteCookieJar::setCookies(const std::vector<ParsedCookie>& cookies,
                                                        const URL& url) {
  const Date now = Clock::shared().now();
  const auto isWanted = [](CookieDecision decision) {
    return decision == CookieDecision::Stored || decision == CookieDecision::Removed;
  };
  std::vector<CookiePolicy::Judgement> judgements;
  judgements.reserve(cookies.size());
  for (const ParsedCookie& cookie : cookies) {
    judgements.push_back(CookiePolicy::judge(cookie, url, now));
  }
  std::vector<CookieDecision> decisions;
  decisions.reserve(cookies.size());
  for (const auto& judgement : judgements) decisions.push_back(judgement.decision);
  if (std::none_of(decisions.begin(), decisions.end(), isWanted)) return decisions;

  const std::lock_guard lock(_mutex);
  const std::optional<Error> begun = _beginChange();
  _table.removeExpired(now);
  std::set<std::string> domains;
  for (std::size_t i = 0; i < judgements.size(); ++i) {
    if (!isWanted(decisions[i])) continue;
    domains.insert(judgements[i].cookie.domain);
    decisions[i] = _store(std::move(judgements[i]), CookiePolicy::isSecure(url), now);
  }
  for (const std::string& domain : domains) _table.trimDomain(domain, _limits.cookiesPerDomain);
  _table.trim(_limits.cookiesPerJar);
  _endChange(begun);
  return decisions;
}

CookieDecision SQLiteCookieJar::_store(CookiePolicy::Judgement judgement, bool secureOrigin,
                                       Date now) {
  Cookie& cookie = judgement.cookie;
  if (!secureOrigin && _table.overlaysSecureCookie(cookie)) return CookieDecision::InsecureOrigin;
  if (judgement.decision == CookieDecision::Removed) {
    _table.remove(cookie);
    return judgement.decision;
  }
  const std::string domain = cookie.domain;
  _table.put(std::move(cookie), now);
  // The limit proper holds when the whole response is stored; this one bounds its work.
  if (_table.countInDomain(domain) / 2 >= _limits.cookiesPerDomain) {
    _table.trimDomain(domain, _limits.cookiesPerDomain);
  }
  return judgement.decision;
}

void SQLiteCookieJar::deleteAllCookies() {
  const std::lock_guard lock(_mutex);
  const std::optional<Error> begun = _beginChange();
  _table.removeAll();
  if (!_endChange(begun)) _database.scrub();
}

std::optional<Error> SQLiteCookieJar::synchronize() {
  const auto failed = [this](Error problem) {
    logLevel(1, "%@: Cannot synchronize %@: %@", kClassName, _database.path().native(), problem);
    return problem;
  };
  FileDescriptor file;
  std::uint64_t changes = 0;
  bool isLogLong = false;
  {
    const std::lock_guard lock(_mutex);
    if (!_table.isSaved()) {
      if (auto problem = _endChange(_beginChange())) return problem;
    }
    if (Clock::shared().monotonicSeconds() - _usesSavedAt >= kUsesSavedEverySeconds) _saveUses();
    if (_synchronizedChanges == _changes || _database.state() != CookieDatabase::State::Writable)
      return std::nullopt;
    Result<FileDescriptor> found = _database.fileToSync();
    if (!found) return failed(found.error());
    file = std::move(*found);
    changes = _changes;
    isLogLong = _database.isLogLong();
  }
  // The disk takes milliseconds, which nobody who looks a cookie up should wait.
  if (file && fdatasync(file.get()) != 0)
    return failed(makeError(kClassName, errno, std::strerror(errno)));
  if (isLogLong) CookieDatabase::emptyLog(_database.path());
  const std::lock_guard lock(_mutex);
  _synchronizedChanges = std::max(_synchronizedChanges, changes);
  return std::nullopt;
}

std::size_t SQLiteCookieJar::count() {
  const Date now = Clock::shared().now();
  const std::lock_guard lock(_mutex);
  _reloadIfChanged();
  return _table.countUnexpired(now);
}

std::optional<Error> SQLiteCookieJar::_attach() {
  std::optional<Error> problem = _database.open();
  if (!problem) problem = _reload();
  if (!problem || !_database.isDamaged()) return problem;
  _setAside();
  problem = _database.open();
  return problem ? problem : _reload();
}

// What the file held and the table holds too is not lost with it: it goes to the next file. Where
// another process has put that in place already, it knows better what is to be in it.
void SQLiteCookieJar::_setAside() {
  const bool isReplaced = _database.isReplaced();
  _database.setAside();
  if (!isReplaced) _table.forgetFile();
}

std::optional<Error> SQLiteCookieJar::_reload() {
  Result<std::vector<StoredCookie>> rows = _database.load();
  if (!rows) return rows.error();
  std::string judgedDomain;
  bool isSuffix = false;  // of judgedDomain; the list may have grown since the cookie was stored
  std::erase_if(*rows, [&](const StoredCookie& row) {
    if (row.cookie.hostOnly) return false;
    if (row.cookie.domain != judgedDomain) {
      judgedDomain = row.cookie.domain;
      isSuffix = CookiePolicy::isPublicSuffix(judgedDomain);
    }
    return isSuffix;
  });
  _table.reload(std::move(*rows));
  return std::nullopt;
}

void SQLiteCookieJar::_reloadIfChanged() {
  if (!_database.mayHaveChanged() || !_database.hasChanged()) return;
  const auto problem = _reload();
  if (!problem) return;
  // The table keeps what it has; the next change opens the file again.
  logLevel(1, "%@: Cannot read %@: %@", kClassName, _database.path().native(), *problem);
}

std::optional<Error> SQLiteCookieJar::_beginChange() {
  if (_database.state() == CookieDatabase::State::Newer) {
    return makeError(kClassName, kNewerVersion, "written by a newer version");
  }
  std::optional<Error> problem = _tryToBeginChange();
  if (problem && _database.isDamaged()) {
    _setAside();
    problem = _tryToBeginChange();
  }
  if (problem) {
    logLevel(1, "%@: Cannot write %@ (%@); the change is kept in memory until the next one",
             kClassName, _database.path().native(), *problem);
  }
  return problem;
}

std::optional<Error> SQLiteCookieJar::_tryToBeginChange() {
  const bool isOpen = _database.state() == CookieDatabase::State::Writable;
  // A file that somebody has removed or replaced takes its cookies with it; what is unsaved goes to
  // the next one.
  if (!isOpen || _database.isReplaced()) {
    if (auto problem = _attach()) return problem;
  }
  if (auto problem = _database.begin()) return problem;
  return _database.hasChanged() ? _reload() : std::nullopt;
}

std::optional<Error> SQLiteCookieJar::_endChange(const std::optional<Error>& begun) {
  if (begun) return begun;
  if (_table.isSaved()) {
    _database.rollback();
    return std::nullopt;
  }
  std::optional<Error> problem = _commit();
  if (problem && _database.isDamaged()) {
    _setAside();
    problem = _tryToBeginChange();
    if (!problem) problem = _commit();
  }
  if (problem) {
    logLevel(1, "%@: Cannot write %@ (%@); the change is kept in memory until the next one",
             kClassName, _database.path().native(), *problem);
  }
  return problem;
}

std::optional<Error> SQLiteCookieJar::_commit() {
  if (auto problem = _database.commit(_table.unsaved())) return problem;
  _table.markAsSaved();
  ++_changes;
  return std::nullopt;
}

void SQLiteCookieJar::_saveUses() {
  _usesSavedAt = Clock::shared().monotonicSeconds();
  if (_database.state() != CookieDatabase::State::Writable || _database.isReplaced()) return;
  const CookieChanges changes = _table.unsavedUses();
  if (changes.uses.empty()) return;
  auto problem = _database.begin();
  if (!problem) problem = _database.commit(changes);
  if (problem) {
    logLevel(2, "%@: Cannot write to %@ which cookies were used: %@", kClassName,
             _database.path().native(), *problem);
    return;
  }
  _table.markUsesAsSaved();
}

}  // namespace tallow
