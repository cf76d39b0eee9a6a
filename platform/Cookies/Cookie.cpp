#include "platform/Cookies/Cookie.h"

namespace tallow {

void appendToCookieHeader(std::string& header, const Cookie& cookie) {
  if (!header.empty()) header += "; ";
  if (!cookie.name.empty()) {
    header += cookie.name;
    header += '=';
  }
  header += cookie.value;
}

std::string cookieHeaderValue(const std::vector<CookiePointer>& cookies) {
  std::string header;
  for (const CookiePointer& cookie : cookies) appendToCookieHeader(header, *cookie);
  return header;
}

}  // namespace tallow
