#include "platform/Cookies/CookieDomain.h"

#include <algorithm>

namespace tallow {

std::optional<std::size_t> CookieDomain::find(const Cookie& identity) const {
  for (std::size_t i = 0; i < _entries.size(); ++i) {
    if (_entries[i].pathLength == identity.path.size() && cookie(i).hasSameIdentity(identity)) {
      return i;
    }
  }
  return std::nullopt;
}

CookieDomain::Entry& CookieDomain::put(Cookie cookie, const CookieRecord& record) {
  Entry entry;
  static_cast<CookieRecord&>(entry) = record;
  if (cookie.expiresDate) entry.expires = cookie.expiresDate->secondsSince1970;
  entry.pathLength = static_cast<std::uint16_t>(cookie.path.size());
  if (!cookie.path.empty()) entry.pathEnd = cookie.path.back();
  entry.hostOnly = cookie.hostOnly;
  entry.secure = cookie.secure;

  if (const auto old = find(cookie)) {
    entry.sequence = _entries[*old].sequence;
    entry.onDisk = _entries[*old].onDisk;
    _changeable()[*old] = std::move(cookie);
    return _entries[*old] = entry;
  }
  const auto position = std::upper_bound(_entries.begin(), _entries.end(), entry, isSentBefore);
  std::vector<Cookie>& cookies = _changeable();
  cookies.insert(cookies.begin() + (position - _entries.begin()), std::move(cookie));
  return *_entries.insert(position, entry);
}

void CookieDomain::prefetch() const {
  constexpr std::size_t kLine = 64;
  __builtin_prefetch(_name.data());
  __builtin_prefetch(_cookies.get(), 1);  // with its reference count
  const auto* const first = reinterpret_cast<const char*>(_entries.data());
  const std::size_t bytes = std::min(_entries.size() * sizeof(Entry), 8 * kLine);
  for (std::size_t offset = 0; offset < bytes; offset += kLine) {
    __builtin_prefetch(first + offset, 1);
  }
}

std::vector<Cookie>& CookieDomain::_changeable() {
  if (_isShared) {
    _cookies = std::make_shared<std::vector<Cookie>>(*_cookies);
    _isShared = false;
  }
  return *_cookies;
}

}  // namespace tallow
