#pragma once

#include <cstdint>
#include <vector>

#include "platform/Cookies/Cookie.h"

namespace tallow {

// What a jar keeps about a cookie beside the cookie itself.
struct CookieRecord {
  // Counts the cookies of a jar as they were created; a cookie that replaces another keeps its
  // number. The order of creation even when the machine's clock is set back.
  std::int64_t sequence = 0;
  // When the cookie was last set or sent: microseconds since 1970, made strictly increasing within
  // a jar, so that there always is one least recently used cookie.
  std::int64_t lastUsed = 0;
};

// A row of a jar's file.
struct StoredCookie {
  Cookie cookie;
  CookieRecord record;
};

// A row to be written, its cookie owned by somebody else.
struct CookieRow {
  const Cookie* cookie;
  CookieRecord record;
};

// What one transaction does to a jar's file, in this order.
struct CookieChanges {
  bool removeAll = false;
  std::vector<const Cookie*> removals;  // by identity
  std::vector<CookieRow> puts;          // whole rows
  std::vector<CookieRow> uses;          // lastUsed alone
};

}  // namespace tallow
