#include "platform/Cookies/CookieTable.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>
#include <utility>

#include "platform/Cookies/CookiePolicy.h"

namespace tallow {
namespace {

using Entry = CookieTable::Entry;

bool isSentBefore(const CookieTable::Match& a, const CookieTable::Match& b) {
  return CookieDomain::isSentBefore(a.entry(), b.entry());
}

// Which of two entries goes first: the smaller one.
using Age = std::tuple<bool, std::int64_t, std::int64_t>;
Age ageInJar(const Entry& entry) {
  return {false, entry.lastUsed, entry.sequence};
}
Age ageInDomain(const Entry& entry) {
  return {entry.secure, entry.lastUsed, entry.sequence};
}

// The age up to which entries have to go so that `count` of them do.
Age oldest(std::vector<Age>& ages, std::size_t count) {
  const auto last = ages.begin() + static_cast<std::ptrdiff_t>(count) - 1;
  std::nth_element(ages.begin(), last, ages.end());
  return *last;
}

// The domain one label further up; empty where that has no domain cookies, a single label.
std::string_view parentDomain(std::string_view domain) {
  const auto dot = domain.find('.');
  if (dot == std::string_view::npos) return {};
  const std::string_view parent = domain.substr(dot + 1);
  return parent.find('.') == std::string_view::npos ? std::string_view() : parent;
}

}  // namespace

bool CookieTable::BackwardsLess::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(a.rbegin(), a.rend(), b.rbegin(), b.rend());
}

std::span<const CookieTable::Match> CookieTable::match(const URL& url, bool secureAllowed,
                                                       Date now) {
  _matches.clear();
  const std::string_view host = url.canonicalHost();
  if (host.empty() || host.size() > CookiePolicy::kLongestDomain) return {};
  const std::string_view path = url.path().starts_with('/') ? url.path() : std::string_view("/");
  // Looks at the cookie itself only where the entry does not tell already.
  const auto isOnPath = [&path](const CookieDomain& domain, std::size_t i) {
    const Entry& entry = domain.entry(i);
    if (entry.pathLength <= 1) return true;
    return entry.pathLength <= path.size() && path[entry.pathLength - 1u] == entry.pathEnd &&
           CookiePolicy::pathMatches(path, domain.cookie(i).path);
  };
  const auto collect = [&](CookieDomain& domain, bool exact) {
    for (std::size_t i = 0; i < domain.count(); ++i) {
      const Entry& entry = domain.entry(i);
      if ((entry.hostOnly && !exact) || (entry.secure && !secureAllowed) ||
          entry.expires <= now.secondsSince1970) {
        continue;
      }
      if (!isOnPath(domain, i)) continue;
      _matches.push_back({&domain, i});
    }
  };
  // The cookies of each domain are in order; those of several are merged.
  const auto mergeFrom = [&](std::size_t first) {
    if (first == 0 || first == _matches.size()) return;
    const auto middle = _matches.begin() + static_cast<std::ptrdiff_t>(first);
    _merged.resize(_matches.size());
    std::merge(_matches.begin(), middle, middle, _matches.end(), _merged.begin(), isSentBefore);
    _matches.swap(_merged);
  };

  constexpr std::size_t kAtOnce = 8;
  std::array<CookieIndex::Query, kAtOnce> queries;
  for (std::string_view domain = host; !domain.empty();) {
    std::size_t count = 0;
    for (; count < kAtOnce && !domain.empty(); ++count) {
      queries[count] = {domain};
      domain = url.hostIsIPAddress() ? std::string_view() : parentDomain(domain);
    }
    _domains.find({queries.data(), count});
    for (std::size_t i = 0; i < count; ++i) {
      if (queries[i].domain == nullptr) continue;
      const std::size_t first = _matches.size();
      collect(*queries[i].domain, queries[i].name.size() == host.size());
      mergeFrom(first);
    }
  }

  if (_matches.empty()) return {};
  const std::int64_t tick = _nextTick(now);
  for (const Match& match : _matches) {
    Entry& entry = match.domain->entry(match.index);
    entry.lastUsed = tick;
    entry.usedSince = true;
  }
  return _matches;
}

bool CookieTable::overlaysSecureCookie(const Cookie& cookie) const {
  const auto isOverlaidIn = [&](const CookieDomain& domain) {
    for (std::size_t i = 0; i < domain.count(); ++i) {
      if (domain.entry(i).secure && domain.cookie(i).name == cookie.name &&
          CookiePolicy::pathMatches(cookie.path, domain.cookie(i).path)) {
        return true;
      }
    }
    return false;
  };
  for (std::string_view name = cookie.domain; !name.empty(); name = parentDomain(name)) {
    const CookieDomain* const domain = _domains.find(name);
    if (domain != nullptr && isOverlaidIn(*domain)) return true;
  }
  const std::string subdomains = '.' + cookie.domain;
  for (auto name = _names.lower_bound(subdomains);
       name != _names.end() && name->ends_with(subdomains); ++name) {
    if (isOverlaidIn(*_domains.find(*name))) return true;
  }
  return false;
}

std::size_t CookieTable::countUnexpired(Date now) const {
  if (now.secondsSince1970 < _earliestExpiry) return _count;
  std::size_t count = 0;
  _domains.forEach([&](const CookieDomain& domain) {
    for (std::size_t i = 0; i < domain.count(); ++i) {
      if (domain.entry(i).expires > now.secondsSince1970) ++count;
    }
  });
  return count;
}

std::size_t CookieTable::countInDomain(std::string_view name) const {
  const CookieDomain* const domain = _domains.find(name);
  return domain == nullptr ? 0 : domain->count();
}

void CookieTable::put(Cookie cookie, Date now) {
  if (const CookieDomain* const domain = _domains.find(cookie.domain)) {
    if (const auto old = domain->find(cookie)) {
      cookie.creationDate = domain->cookie(*old).creationDate;
    }
  }
  _unsavedDomains.insert(cookie.domain);
  _insert(std::move(cookie), {_lastSequence + 1, _nextTick(now)}).unsaved = true;
}

Entry& CookieTable::_insert(Cookie cookie, const CookieRecord& record) {
  _lastSequence = std::max(_lastSequence, record.sequence);
  _lastTick = std::max(_lastTick, record.lastUsed);
  if (cookie.expiresDate) {
    _earliestExpiry = std::min(_earliestExpiry, cookie.expiresDate->secondsSince1970);
  }
  CookieDomain& domain = _domains.findOrInsert(cookie.domain);
  if (domain.count() == 0) _names.insert(domain.name());
  _count -= domain.count();
  Entry& entry = domain.put(std::move(cookie), record);
  _count += domain.count();
  return entry;
}

template <class Condition>
void CookieTable::_removeIf(CookieDomain& domain, Condition condition) {
  domain.removeIf(condition, [&](Cookie cookie, const Entry& entry) {
    --_count;
    if (entry.onDisk) _removals.push_back(std::move(cookie));
  });
  if (domain.count() > 0) return;
  _names.erase(domain.name());
  const std::string name(domain.name());
  _unsavedDomains.erase(name);
  _domains.erase(name);
}

template <class Condition>
void CookieTable::_removeIf(Condition condition) {
  std::vector<CookieDomain*> domains;
  domains.reserve(_names.size());
  _domains.forEach([&](CookieDomain& domain) { domains.push_back(&domain); });
  for (CookieDomain* const domain : domains) _removeIf(*domain, condition);
}

void CookieTable::remove(const Cookie& identity) {
  CookieDomain* const domain = _domains.find(identity.domain);
  if (domain == nullptr) return;
  const auto index = domain->find(identity);
  if (!index) return;
  const std::int64_t sequence = domain->entry(*index).sequence;
  _removeIf(*domain, [&](const Entry& entry) { return entry.sequence == sequence; });
}

void CookieTable::_clear() {
  _names.clear();
  _domains.clear();
  _count = 0;
  _earliestExpiry = std::numeric_limits<double>::infinity();
}

void CookieTable::removeAll() {
  _clear();
  _allRemoved = true;
  _removals.clear();
  _unsavedDomains.clear();
}

void CookieTable::removeExpired(Date now) {
  if (now.secondsSince1970 < _earliestExpiry) return;
  _earliestExpiry = std::numeric_limits<double>::infinity();
  _removeIf([&](const Entry& entry) {
    if (entry.expires <= now.secondsSince1970) return true;
    _earliestExpiry = std::min(_earliestExpiry, entry.expires);
    return false;
  });
}

void CookieTable::trimDomain(std::string_view name, std::size_t limit) {
  CookieDomain* const domain = _domains.find(name);
  if (domain == nullptr || domain->count() <= limit) return;
  std::vector<Age> ages;
  ages.reserve(domain->count());
  for (std::size_t i = 0; i < domain->count(); ++i) ages.push_back(ageInDomain(domain->entry(i)));
  const Age threshold = oldest(ages, domain->count() - limit);
  _removeIf(*domain, [&](const Entry& entry) { return ageInDomain(entry) <= threshold; });
}

void CookieTable::trim(std::size_t limit) {
  if (_count <= limit) return;
  std::vector<Age> ages;
  ages.reserve(_count);
  _domains.forEach([&](const CookieDomain& domain) {
    for (std::size_t i = 0; i < domain.count(); ++i) ages.push_back(ageInJar(domain.entry(i)));
  });
  const Age threshold = oldest(ages, _count - limit);
  _removeIf([&](const Entry& entry) { return ageInJar(entry) <= threshold; });
}

void CookieTable::reload(std::vector<StoredCookie> rows) {
  std::vector<StoredCookie> kept;
  std::vector<StoredCookie> used;
  _domains.forEach([&](const CookieDomain& domain) {
    for (std::size_t i = 0; i < domain.count(); ++i) {
      const Entry& entry = domain.entry(i);
      if (entry.unsaved)
        kept.push_back({domain.cookie(i), entry});
      else if (entry.usedSince)
        used.push_back({domain.cookie(i), entry});
    }
  });
  std::sort(kept.begin(), kept.end(), [](const StoredCookie& a, const StoredCookie& b) {
    return a.record.sequence < b.record.sequence;
  });

  _clear();
  const std::vector<Cookie> removals = std::exchange(_removals, {});
  _unsavedDomains.clear();
  if (_allRemoved) rows.clear();
  for (StoredCookie& row : rows) _insert(std::move(row.cookie), row.record).onDisk = true;
  for (const Cookie& cookie : removals) remove(cookie);  // again, if it is still there
  for (const StoredCookie& one : used) {
    CookieDomain* const domain = _domains.find(one.cookie.domain);
    const auto index = domain == nullptr ? std::nullopt : domain->find(one.cookie);
    if (!index || domain->entry(*index).lastUsed >= one.record.lastUsed) continue;
    domain->entry(*index).lastUsed = one.record.lastUsed;
    domain->entry(*index).usedSince = true;
  }
  for (StoredCookie& one : kept) {
    one.record.sequence = _lastSequence + 1;
    _unsavedDomains.insert(one.cookie.domain);
    _insert(std::move(one.cookie), one.record).unsaved = true;
  }
}

void CookieTable::forgetFile() {
  _allRemoved = false;
  _removals.clear();
  _domains.forEach([&](CookieDomain& domain) {
    _unsavedDomains.emplace(domain.name());
    for (std::size_t i = 0; i < domain.count(); ++i) {
      domain.entry(i).onDisk = false;
      domain.entry(i).unsaved = true;
    }
  });
}

CookieChanges CookieTable::unsaved() const {
  CookieChanges changes;
  changes.removeAll = _allRemoved;
  for (const Cookie& cookie : _removals) changes.removals.push_back(&cookie);
  for (const std::string& name : _unsavedDomains) {
    const CookieDomain& domain = *_domains.find(name);
    for (std::size_t i = 0; i < domain.count(); ++i) {
      const Entry& entry = domain.entry(i);
      const CookieRecord& record = entry;  // what is stored of it
      if (entry.unsaved) changes.puts.push_back({&domain.cookie(i), record});
    }
  }
  return changes;
}

void CookieTable::markAsSaved() {
  for (const std::string& name : _unsavedDomains) {
    CookieDomain& domain = *_domains.find(name);
    for (std::size_t i = 0; i < domain.count(); ++i) {
      Entry& entry = domain.entry(i);
      if (!entry.unsaved) continue;
      entry.unsaved = false;
      entry.usedSince = false;
      entry.onDisk = true;
    }
  }
  _allRemoved = false;
  _removals.clear();
  _unsavedDomains.clear();
}

CookieChanges CookieTable::unsavedUses() const {
  CookieChanges changes;
  _domains.forEach([&](const CookieDomain& domain) {
    for (std::size_t i = 0; i < domain.count(); ++i) {
      const Entry& entry = domain.entry(i);
      if (entry.usedSince && entry.onDisk) changes.uses.push_back({&domain.cookie(i), entry});
    }
  });
  return changes;
}

void CookieTable::markUsesAsSaved() {
  _domains.forEach([](CookieDomain& domain) {
    for (std::size_t i = 0; i < domain.count(); ++i) domain.entry(i).usedSince = false;
  });
}

std::int64_t CookieTable::_nextTick(Date now) {
  constexpr double kLatest = 9e15;  // microseconds: the year 2255
  const double microseconds = std::clamp(now.secondsSince1970 * 1e6, 0.0, kLatest);
  _lastTick = std::max(std::llround(microseconds), static_cast<long long>(_lastTick) + 1);
  return _lastTick;
}

}  // namespace tallow
