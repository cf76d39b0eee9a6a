#include "platform/Cookies/SQLiteCookieJar.h"

#include <algorithm>
#include <cerrno>
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
  if (!_unsaved.empty()) _endChange(_beginChange());
  _saveUses();
}

std::vector<CookiePointer> SQLiteCookieJar::cookiesForURL(const URL& url, bool secureAllowed) {
  const Date now = Clock::shared().now();
  const std::lock_guard lock(_mutex);
  _reloadIfChanged();
  const auto matches = _table.match(url, secureAllowed, now);
  std::vector<CookiePointer> cookies;
  cookies.reserve(matches.size());
  for (const CookieTable::Entry* const entry : matches) cookies.push_back(entry->cookie);
  return cookies;
}

std::string SQLiteCookieJar::headerValueForURL(const URL& url, bool secureAllowed) {
  const Date now = Clock::shared().now();
  const std::lock_guard lock(_mutex);
  _reloadIfChanged();
  const auto matches = _table.match(url, secureAllowed, now);
  constexpr std::size_t kPunctuation = 3;  // "=" and "; "
  std::size_t length = 0;
  for (const CookieTable::Entry* const entry : matches) {
    length += entry->cookie->name.size() + entry->cookie->value.size() + kPunctuation;
  }
  std::string header;
  header.reserve(length);
  for (const CookieTable::Entry* const entry : matches) {
    appendToCookieHeader(header, *entry->cookie);
  }
  return header;
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
  CookieTable::Removed expired;
  _table.removeExpired(now, expired);
  _noteRemoved(expired);
  const std::size_t alreadyUnsaved = _unsaved.puts.size();
  for (std::size_t i = 0; i < judgements.size(); ++i) {
    if (!isWanted(decisions[i])) continue;
    decisions[i] = _store(std::move(judgements[i]), CookiePolicy::isSecure(url), now);
  }
  const auto firstNew = _unsaved.puts.begin() + static_cast<std::ptrdiff_t>(alreadyUnsaved);
  _makeRoom({firstNew, _unsaved.puts.end()});
  _endChange(begun);
  return decisions;
}

CookieDecision SQLiteCookieJar::_store(CookiePolicy::Judgement judgement, bool secureOrigin,
                                       Date now) {
  Cookie& cookie = judgement.cookie;
  if (!secureOrigin && _table.overlaysSecureCookie(cookie)) return CookieDecision::InsecureOrigin;

  CookieTable::Removed removed;
  if (judgement.decision == CookieDecision::Removed) {
    _table.remove(cookie, removed);
  } else {
    const CookiePointer stored = _table.put(std::move(cookie), now).cookie;
    _unsaved.puts.push_back(stored);
    // The limit proper holds when the whole response is stored; this one bounds its work.
    if (_table.countInDomain(stored->domain) / 2 >= _limits.cookiesPerDomain) {
      _table.trimDomain(stored->domain, _limits.cookiesPerDomain, removed);
    }
  }
  _noteRemoved(removed);
  return judgement.decision;
}

void SQLiteCookieJar::_makeRoom(const std::vector<CookiePointer>& stored) {
  CookieTable::Removed removed;
  for (const CookiePointer& cookie : stored) {
    _table.trimDomain(cookie->domain, _limits.cookiesPerDomain, removed);
  }
  _table.trim(_limits.cookiesPerJar, removed);
  _noteRemoved(removed);
}

void SQLiteCookieJar::_noteRemoved(const CookieTable::Removed& removed) {
  for (const CookieTable::Entry& entry : removed) {
    if (entry.onDisk) _unsaved.removals.push_back(entry.cookie);
  }
}

void SQLiteCookieJar::deleteAllCookies() {
  const std::lock_guard lock(_mutex);
  const std::optional<Error> begun = _beginChange();
  _table.clear();
  _unsaved = Unsaved();
  _unsaved.removeAll = true;
  if (!_endChange(begun)) _database.scrub();
}

std::optional<Error> SQLiteCookieJar::synchronize() {
  const std::lock_guard lock(_mutex);
  if (!_unsaved.empty()) {
    if (auto problem = _endChange(_beginChange())) return problem;
  }
  if (Clock::shared().monotonicSeconds() - _usesSavedAt >= kUsesSavedEverySeconds) _saveUses();
  if (_isSynchronized || _database.state() != CookieDatabase::State::Writable) return std::nullopt;
  if (auto problem = _database.sync()) {
    logLevel(1, "%@: Cannot synchronize %@: %@", kClassName, _database.path().native(), *problem);
    return problem;
  }
  _isSynchronized = true;
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

// What the file held and the table holds too is not lost with it: it goes to the next file.
void SQLiteCookieJar::_setAside() {
  _database.setAside();
  _unsaved = Unsaved();
  std::vector<CookieTable::Entry*> entries;
  _table.forEach([&](CookieTable::Entry& entry) { entries.push_back(&entry); });
  std::sort(entries.begin(), entries.end(),
            [](const auto* a, const auto* b) { return a->sequence < b->sequence; });
  for (CookieTable::Entry* const entry : entries) {
    entry->onDisk = false;
    _unsaved.puts.push_back(entry->cookie);
  }
}

std::optional<Error> SQLiteCookieJar::_reload() {
  Result<std::vector<StoredCookie>> rows = _database.load();
  if (!rows) return rows.error();
  _takeIn(std::move(*rows));
  return std::nullopt;
}

void SQLiteCookieJar::_reloadIfChanged() {
  if (!_database.mayHaveChanged() || !_database.hasChanged()) return;
  const auto problem = _reload();
  if (!problem) return;
  // The table keeps what it has; the next change opens the file again.
  logLevel(1, "%@: Cannot read %@: %@", kClassName, _database.path().native(), *problem);
}

void SQLiteCookieJar::_takeIn(std::vector<StoredCookie> rows) {
  std::vector<StoredCookie> unsaved;
  for (const StoredCookie* const entry : _unsavedEntries()) unsaved.push_back(*entry);
  std::vector<StoredCookie> used;
  _table.forEach([&](const CookieTable::Entry& entry) {
    if (entry.usedSince) used.push_back(entry);
  });

  _table.clear();
  if (_unsaved.removeAll) rows.clear();
  std::string judgedDomain;
  bool isSuffix = false;  // of judgedDomain; the list may have grown since the cookie was stored
  for (StoredCookie& row : rows) {
    const Cookie& cookie = *row.cookie;
    if (!cookie.hostOnly && cookie.domain != judgedDomain) {
      judgedDomain = cookie.domain;
      isSuffix = CookiePolicy::isPublicSuffix(judgedDomain);
    }
    if (!cookie.hostOnly && isSuffix) continue;
    _table.restore(std::move(row)).onDisk = true;
  }
  for (const StoredCookie& stored : used) {
    CookieTable::Entry* const entry = _table.find(*stored.cookie);
    if (entry == nullptr || entry->lastUsed >= stored.lastUsed) continue;
    entry->lastUsed = stored.lastUsed;
    entry->usedSince = true;
  }
  CookieTable::Removed removed;
  for (const CookiePointer& cookie : _unsaved.removals) _table.remove(*cookie, removed);
  _unsaved.puts.clear();
  for (const StoredCookie& stored : unsaved) {
    CookieTable::Entry& entry = _table.put(Cookie(*stored.cookie), stored.cookie->creationDate);
    entry.lastUsed = stored.lastUsed;
    _unsaved.puts.push_back(entry.cookie);
  }
}

std::optional<Error> SQLiteCookieJar::_beginChange() {
  if (_database.state() == CookieDatabase::State::Newer) {
    return makeError(kClassName, EROFS, "written by a newer version");
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
  const bool isReplaced = isOpen && _database.isReplaced();
  if (isReplaced) _setAside();  // somebody has moved the file already
  if (!isOpen || isReplaced) {
    if (auto problem = _attach()) return problem;
  }
  if (auto problem = _database.begin()) return problem;
  return _database.hasChanged() ? _reload() : std::nullopt;
}

std::optional<Error> SQLiteCookieJar::_endChange(const std::optional<Error>& begun) {
  if (begun) {
    _compactUnsaved();
    return begun;
  }
  if (_unsaved.empty()) {
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
    _compactUnsaved();
  }
  return problem;
}

std::optional<Error> SQLiteCookieJar::_commit() {
  CookieDatabase::Changes changes;
  changes.removeAll = _unsaved.removeAll;
  changes.removals = _unsaved.removals;
  changes.puts = _unsavedEntries();
  if (auto problem = _database.commit(changes)) return problem;
  for (const CookiePointer& cookie : _unsaved.puts) {
    CookieTable::Entry* const entry = _table.find(*cookie);
    if (entry == nullptr) continue;
    entry->onDisk = true;
    entry->usedSince = false;
  }
  _unsaved = Unsaved();
  _isSynchronized = false;
  return std::nullopt;
}

void SQLiteCookieJar::_saveUses() {
  _usesSavedAt = Clock::shared().monotonicSeconds();
  if (_database.state() != CookieDatabase::State::Writable || _database.isReplaced()) return;
  CookieDatabase::Changes changes;
  _table.forEach([&](const CookieTable::Entry& entry) {
    if (entry.usedSince && entry.onDisk) changes.uses.push_back(&entry);
  });
  if (changes.uses.empty()) return;
  auto problem = _database.begin();
  if (!problem) problem = _database.commit(changes);
  if (problem) {
    logLevel(2, "%@: Cannot write to %@ which cookies were used: %@", kClassName,
             _database.path().native(), *problem);
    return;
  }
  _table.forEach([](CookieTable::Entry& entry) { entry.usedSince = false; });
}

std::vector<const StoredCookie*> SQLiteCookieJar::_unsavedEntries() {
  std::vector<const StoredCookie*> entries;
  for (const CookiePointer& cookie : _unsaved.puts) {
    const CookieTable::Entry* const entry = _table.find(*cookie);
    if (entry != nullptr && entry->cookie == cookie) entries.push_back(entry);
  }
  return entries;
}

void SQLiteCookieJar::_compactUnsaved() {
  constexpr std::size_t kWorthwhile = 64;
  if (_unsaved.puts.size() < 2 * _table.count() + kWorthwhile) return;
  std::vector<CookiePointer> puts;
  for (const StoredCookie* const entry : _unsavedEntries()) puts.push_back(entry->cookie);
  _unsaved.puts = std::move(puts);
}

}  // namespace tallow
