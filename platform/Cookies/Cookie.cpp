#include "platform/Cookies/Cookie.h"

namespace tallow {

std::string cookieHeaderValue(const std::vector<CookiePointer>& cookies) {
  std::string header;
  for (const CookiePointer& cookie : cookies) {
    if (!header.empty()) header += "; ";
    if (!cookie->name.empty()) {
      header += cookie->name;
      header += '=';
    }
    header += cookie->value;
  }
  return header;
}

}  // namespace tallow
