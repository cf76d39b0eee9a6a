#pragma once

#include <cstdint>

#include "platform/Cookies/Cookie.h"

namespace tallow {

// A cookie together with what its jar keeps about it.
struct StoredCookie {
  CookiePointer cookie;
  // Counts the cookies of a jar as they were created; a cookie that replaces another keeps its
  // number. The order of creation even when the machine's clock is set back.
  std::int64_t sequence = 0;
  // When the cookie was last set or sent: microseconds since 1970, made strictly increasing within
  // a jar, so that there always is one least recently used cookie.
  std::int64_t lastUsed = 0;
};

}  // namespace tallow
