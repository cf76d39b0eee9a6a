#include "platform/Cookies/CookieTable.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

#include "platform/Cookies/CookiePolicy.h"

namespace tallow {
namespace {

using Entry = CookieTable::Entry;

// Longer paths first, then the cookies created earlier (RFC 6265 section 5.4).
bool isSentBefore(const Entry& a, const Entry& b) {
  if (a.pathLength != b.pathLength) return a.pathLength > b.pathLength;
  return a.sequence < b.sequence;
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

// make_shared keeps the reference count directly in front of the cookie.
void prefetchForCopy(const CookiePointer& cookie) {
  constexpr std::size_t kCounts = 16;
  __builtin_prefetch(reinterpret_cast<const char*>(cookie.get()) - kCounts, 1);
}

}  // namespace

bool CookieTable::BackwardsLess::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(a.rbegin(), a.rend(), b.rbegin(), b.rend());
}

std::span<Entry* const> CookieTable::match(const URL& url, bool secureAllowed, Date now) {
  _matches.clear();
  const std::string_view host = url.canonicalHost();
  if (host.empty() || host.size() > CookiePolicy::kLongestDomain) return {};
  const std::string_view path = url.path().starts_with('/') ? url.path() : std::string_view("/");

  std::size_t domainsThatMatch = 0;
  for (std::string_view domain = host; !domain.empty(); domain = parentDomain(domain)) {
    const bool exact = domain.size() == host.size();
    const auto found = _domains.find(domain);
    if (found != _domains.end()) {
      const std::size_t before = _matches.size();
      for (Entry& entry : found->second) {
        if ((entry.hostOnly && !exact) || (entry.secure && !secureAllowed) ||
            entry.expires <= now.secondsSince1970) {
          continue;
        }
        if (entry.pathLength > 1 && !CookiePolicy::pathMatches(path, entry.cookie->path)) continue;
        prefetchForCopy(entry.cookie);
        _matches.push_back(&entry);
      }
      if (_matches.size() != before) ++domainsThatMatch;
    }
    if (url.hostIsIPAddress()) break;
  }
  if (_matches.empty()) return {};
  if (domainsThatMatch > 1) {
    std::sort(_matches.begin(), _matches.end(),
              [](const Entry* a, const Entry* b) { return isSentBefore(*a, *b); });
  }
  const std::int64_t tick = _nextTick(now);
  for (Entry* const entry : _matches) {
    entry->lastUsed = tick;
    entry->usedSince = true;
  }
  return _matches;
}

bool CookieTable::overlaysSecureCookie(const Cookie& cookie) const {
  const auto isOverlaid = [&](const Entries& entries) {
    return std::any_of(entries.begin(), entries.end(), [&](const Entry& entry) {
      return entry.secure && entry.cookie->name == cookie.name &&
             CookiePolicy::pathMatches(cookie.path, entry.cookie->path);
    });
  };
  for (std::string_view domain = cookie.domain; !domain.empty(); domain = parentDomain(domain)) {
    const auto found = _domains.find(domain);
    if (found != _domains.end() && isOverlaid(found->second)) return true;
  }
  const std::string subdomains = '.' + cookie.domain;
  for (auto name = _names.lower_bound(subdomains);
       name != _names.end() && name->ends_with(subdomains); ++name) {
    if (isOverlaid(_domains.find(*name)->second)) return true;
  }
  return false;
}

Entry* CookieTable::find(const Cookie& identity) {
  const auto domain = _domains.find(identity.domain);
  if (domain == _domains.end()) return nullptr;
  const auto entry =
      std::find_if(domain->second.begin(), domain->second.end(), [&](const Entry& candidate) {
        return candidate.pathLength == identity.path.size() &&
               candidate.cookie->hasSameIdentity(identity);
      });
  return entry == domain->second.end() ? nullptr : &*entry;
}

Entry& CookieTable::put(Cookie cookie, Date now) {
  Entry* const old = find(cookie);
  if (old != nullptr) cookie.creationDate = old->cookie->creationDate;

  StoredCookie stored;
  stored.sequence = old != nullptr ? old->sequence : _lastSequence + 1;
  stored.lastUsed = _nextTick(now);
  stored.cookie = std::make_shared<const Cookie>(std::move(cookie));
  return restore(std::move(stored));
}

Entry& CookieTable::restore(StoredCookie stored) {
  const Cookie& cookie = *stored.cookie;
  _lastSequence = std::max(_lastSequence, stored.sequence);
  _lastTick = std::max(_lastTick, stored.lastUsed);

  Entry entry;
  if (cookie.expiresDate) entry.expires = cookie.expiresDate->secondsSince1970;
  entry.pathLength = static_cast<std::uint16_t>(cookie.path.size());
  entry.hostOnly = cookie.hostOnly;
  entry.secure = cookie.secure;
  _earliestExpiry = std::min(_earliestExpiry, entry.expires);
  Entry* const old = find(cookie);
  static_cast<StoredCookie&>(entry) = std::move(stored);
  if (old == nullptr) return _insert(std::move(entry));
  entry.sequence = old->sequence;  // its turn: the order of its neighbours rests on it
  entry.onDisk = old->onDisk;
  return *old = std::move(entry);
}

Entry& CookieTable::_insert(Entry entry) {
  const auto [domain, isNew] = _domains.try_emplace(entry.cookie->domain);
  if (isNew) _names.insert(domain->first);
  Entries& entries = domain->second;
  const auto position = std::upper_bound(entries.begin(), entries.end(), entry, isSentBefore);
  ++_count;
  return *entries.insert(position, std::move(entry));
}

template <class Condition>
CookieTable::Domains::iterator CookieTable::_removeIf(Domains::iterator domain, Condition condition,
                                                      Removed& removed) {
  Entries& entries = domain->second;
  auto kept = entries.begin();
  for (Entry& entry : entries) {
    if (condition(entry)) {
      removed.push_back(std::move(entry));
      --_count;
    } else {
      if (&*kept != &entry) *kept = std::move(entry);
      ++kept;
    }
  }
  entries.erase(kept, entries.end());
  if (!entries.empty()) return ++domain;
  _names.erase(domain->first);
  return _domains.erase(domain);
}

void CookieTable::remove(const Cookie& identity, Removed& removed) {
  const Entry* const entry = find(identity);
  if (entry == nullptr) return;
  _removeIf(
      _domains.find(identity.domain), [&](const Entry& candidate) { return &candidate == entry; },
      removed);
}

void CookieTable::clear() {
  _names.clear();
  _domains.clear();
  _count = 0;
  _earliestExpiry = std::numeric_limits<double>::infinity();
}

void CookieTable::removeExpired(Date now, Removed& removed) {
  if (now.secondsSince1970 < _earliestExpiry) return;
  _earliestExpiry = std::numeric_limits<double>::infinity();
  for (auto domain = _domains.begin(); domain != _domains.end();) {
    domain = _removeIf(
        domain,
        [&](const Entry& entry) {
          if (entry.expires <= now.secondsSince1970) return true;
          _earliestExpiry = std::min(_earliestExpiry, entry.expires);
          return false;
        },
        removed);
  }
}

void CookieTable::trimDomain(std::string_view name, std::size_t limit, Removed& removed) {
  const auto domain = _domains.find(name);
  if (domain == _domains.end() || domain->second.size() <= limit) return;
  std::size_t excess = domain->second.size() - limit;
  std::vector<Age> ages;
  ages.reserve(domain->second.size());
  for (const Entry& entry : domain->second) ages.push_back(ageInDomain(entry));
  const Age threshold = oldest(ages, excess);
  _removeIf(
      domain,
      [&](const Entry& entry) {
        if (excess == 0 || ageInDomain(entry) > threshold) return false;
        --excess;
        return true;
      },
      removed);
}

void CookieTable::trim(std::size_t limit, Removed& removed) {
  if (_count <= limit) return;
  std::size_t excess = _count - limit;
  std::vector<Age> ages;
  ages.reserve(_count);
  forEach([&](const Entry& entry) { ages.push_back(ageInJar(entry)); });
  const Age threshold = oldest(ages, excess);
  for (auto domain = _domains.begin(); domain != _domains.end() && excess > 0;) {
    domain = _removeIf(
        domain,
        [&](const Entry& entry) {
          if (excess == 0 || ageInJar(entry) > threshold) return false;
          --excess;
          return true;
        },
        removed);
  }
}

std::size_t CookieTable::countUnexpired(Date now) const {
  if (now.secondsSince1970 < _earliestExpiry) return _count;
  std::size_t count = 0;
  for (const auto& [name, entries] : _domains) {
    count += static_cast<std::size_t>(
        std::count_if(entries.begin(), entries.end(),
                      [&](const Entry& entry) { return entry.expires > now.secondsSince1970; }));
  }
  return count;
}

std::size_t CookieTable::countInDomain(std::string_view name) const {
  const auto domain = _domains.find(name);
  return domain == _domains.end() ? 0 : domain->second.size();
}

std::int64_t CookieTable::_nextTick(Date now) {
  constexpr double kLatest = 9e15;  // microseconds: the year 2255
  const double microseconds = std::clamp(now.secondsSince1970 * 1e6, 0.0, kLatest);
  _lastTick = std::max(std::llround(microseconds), static_cast<long long>(_lastTick) + 1);
  return _lastTick;
}

}  // namespace tallow
