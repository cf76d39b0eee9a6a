#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/Base/Date.h"
#include "platform/Base/URL.h"
#include "platform/Cookies/StoredCookie.h"

namespace tallow {

// The cookies of one jar in memory, found by URL in time that depends on the labels of the host and
// the cookies of its domains, not on the size of the jar. Each domain keeps its cookies in the
// order in which they are sent.
//
// Knows no disk and no policy but the order of eviction. Owned by a jar, which serialises access.
class CookieTable {
 public:
  struct Entry : StoredCookie {
    double expires = std::numeric_limits<double>::infinity();  // seconds since 1970
    std::uint16_t pathLength = 0;
    bool hostOnly = true;
    bool secure = false;
    bool onDisk = false;     // the file holds a row of this identity
    bool usedSince = false;  // sent after lastUsed was last written to the file
  };

  // What a call removes, it appends here.
  using Removed = std::vector<Entry>;

  // The cookies to send to `url` at `now`, in order, each marked as used. Valid until the next call
  // of any other member.
  std::span<Entry* const> match(const URL& url, bool secureAllowed, Date now);

  // Whether a non-secure cookie set from a non-secure origin would hide or shadow a Secure one.
  bool overlaysSecureCookie(const Cookie& cookie) const;

  Entry* find(const Cookie& identity);
  // Stores a new cookie, in the place of the one with its identity if there is one: that one's
  // creation time and turn are kept.
  Entry& put(Cookie cookie, Date now);
  // Takes in a cookie as another process or an earlier run has stored it.
  Entry& restore(StoredCookie stored);
  void remove(const Cookie& identity, Removed& removed);
  void clear();

  void removeExpired(Date now, Removed& removed);
  // The least recently used first; those that are not Secure before those that are.
  void trimDomain(std::string_view domain, std::size_t limit, Removed& removed);
  // The least recently used first.
  void trim(std::size_t limit, Removed& removed);

  std::size_t count() const { return _count; }
  std::size_t countUnexpired(Date now) const;
  std::size_t countInDomain(std::string_view domain) const;

  template <class Function>
  void forEach(Function function) {
    for (auto& [name, entries] : _domains) {
      for (Entry& entry : entries) function(entry);
    }
  }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
  };
  // Orders names from their last character backwards, so that the subdomains of a domain follow it.
  struct BackwardsLess {
    bool operator()(std::string_view a, std::string_view b) const;
  };
  using Entries = std::vector<Entry>;
  using Domains = std::unordered_map<std::string, Entries, Hash, std::equal_to<>>;

  Entry& _insert(Entry entry);
  // Moves the entries that fulfil `condition` to `removed`; the domain goes with its last entry.
  // Returns the domain after it.
  template <class Condition>
  Domains::iterator _removeIf(Domains::iterator domain, Condition condition, Removed& removed);
  std::int64_t _nextTick(Date now);

  Domains _domains;
  std::set<std::string_view, BackwardsLess> _names;  // the keys of _domains
  std::size_t _count = 0;
  std::int64_t _lastSequence = 0;
  std::int64_t _lastTick = 0;
  double _earliestExpiry = std::numeric_limits<double>::infinity();  // a lower bound
  std::vector<Entry*> _matches;  // of the latest match(); kept for its capacity
};

}  // namespace tallow
