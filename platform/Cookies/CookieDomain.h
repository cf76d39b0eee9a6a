#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Cookies/CookieChanges.h"

namespace tallow {

// The cookies of one domain, in the order in which they are sent (RFC 6265 section 5.4: longer
// paths first, then the older ones). What a lookup looks at is kept apart from the cookies, close
// together.
//
// Readers share the cookies as they are; the first change after that works on a copy. Owned by a
// CookieTable, whose jar serialises access.
class CookieDomain {
 public:
  struct Entry : CookieRecord {
    double expires = std::numeric_limits<double>::infinity();  // seconds since 1970
    std::uint16_t pathLength = 0;
    char pathEnd = '\0';  // the path's last character, which tells most paths from the request's
    bool hostOnly = true;
    bool secure = false;
    bool onDisk = false;     // the file holds a row of this identity
    bool unsaved = false;    // which is not this one
    bool usedSince = false;  // sent after lastUsed was last written to the file
  };

  static bool isSentBefore(const Entry& a, const Entry& b) {
    if (a.pathLength != b.pathLength) return a.pathLength > b.pathLength;
    return a.sequence < b.sequence;
  }

  // `memory` holds what a lookup looks at, and outlives this.
  CookieDomain(std::string_view name, std::pmr::memory_resource* memory)
      : _name(name, memory), _entries(memory), _cookies(std::make_shared<std::vector<Cookie>>()) {}

  std::string_view name() const { return _name; }
  std::size_t count() const { return _entries.size(); }
  const Entry& entry(std::size_t index) const { return _entries[index]; }
  Entry& entry(std::size_t index) { return _entries[index]; }
  const Cookie& cookie(std::size_t index) const { return (*_cookies)[index]; }
  // The cookie for a reader to keep, and with it its neighbours.
  CookiePointer share(std::size_t index) {
    _isShared = true;
    return {_cookies, &(*_cookies)[index]};
  }

  std::optional<std::size_t> find(const Cookie& identity) const;
  // In the place of the cookie with its identity, if there is one; that one's turn is kept.
  Entry& put(Cookie cookie, const CookieRecord& record);
  // Calls `removed` with the cookie and the entry of each that fulfils `condition`.
  template <class Condition, class Removed>
  void removeIf(Condition condition, Removed removed);

  // Begins to fetch into the processor's cache what a lookup is going to read.
  void prefetch() const;

 private:
  std::vector<Cookie>& _changeable();

  std::pmr::string _name;
  std::pmr::vector<Entry> _entries;
  std::shared_ptr<std::vector<Cookie>> _cookies;  // one for each entry
  bool _isShared = false;
};

template <class Condition, class Removed>
void CookieDomain::removeIf(Condition condition, Removed removed) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < _entries.size(); ++i) {
    if (condition(_entries[i])) {
      removed(std::move(_changeable()[i]), _entries[i]);
      continue;
    }
    if (kept != i) {
      _changeable()[kept] = std::move(_changeable()[i]);
      _entries[kept] = _entries[i];
    }
    ++kept;
  }
  if (kept == _entries.size()) return;
  _entries.resize(kept);
  _changeable().resize(kept);
}

}  // namespace tallow
