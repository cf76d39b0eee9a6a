#include "platform/Cookies/CookieRows.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "platform/Cookies/CookiePolicy.h"

namespace tallow {
namespace {

void bindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const auto* const text = static_cast<const char*>(sqlite3_column_blob(statement, column));
  const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
  return text == nullptr ? std::string() : std::string(text, length);
}

}  // namespace

void CookieRows::bindIdentity(sqlite3_stmt* statement, const Cookie& cookie) {
  bindText(statement, 1, cookie.domain);
  bindText(statement, 2, cookie.path);
  bindText(statement, 3, cookie.name);
  sqlite3_bind_int(statement, 4, cookie.hostOnly ? 1 : 0);
}

void CookieRows::bind(sqlite3_stmt* statement, const CookieRow& row) {
  const Cookie& cookie = *row.cookie;
  bindIdentity(statement, cookie);
  bindText(statement, 5, cookie.value);
  sqlite3_bind_int(statement, 6, cookie.secure ? 1 : 0);
  sqlite3_bind_int(statement, 7, cookie.httpOnly ? 1 : 0);
  sqlite3_bind_int(statement, 8, static_cast<int>(cookie.sameSite));
  if (cookie.expiresDate) sqlite3_bind_double(statement, 9, cookie.expiresDate->secondsSince1970);
  sqlite3_bind_double(statement, 10, cookie.creationDate.secondsSince1970);
  sqlite3_bind_int64(statement, 11, row.record.lastUsed);
  sqlite3_bind_int64(statement, 12, row.record.sequence);
}

void CookieRows::bindUse(sqlite3_stmt* statement, const CookieRow& row) {
  bindIdentity(statement, *row.cookie);
  sqlite3_bind_int64(statement, 5, row.record.lastUsed);
}

std::optional<StoredCookie> CookieRows::read(sqlite3_stmt* statement) {
  constexpr std::int64_t kLargestCount = std::int64_t{1} << 60;
  Cookie cookie;
  cookie.domain = columnText(statement, 0);
  cookie.path = columnText(statement, 1);
  cookie.name = columnText(statement, 2);
  cookie.hostOnly = sqlite3_column_int(statement, 3) != 0;
  cookie.value = columnText(statement, 4);
  cookie.secure = sqlite3_column_int(statement, 5) != 0;
  cookie.httpOnly = sqlite3_column_int(statement, 6) != 0;
  const int sameSite = sqlite3_column_int(statement, 7);
  if (sameSite < 0 || sameSite > static_cast<int>(Cookie::SameSite::Strict)) return std::nullopt;
  cookie.sameSite = static_cast<Cookie::SameSite>(sameSite);
  if (sqlite3_column_type(statement, 8) != SQLITE_NULL) {
    cookie.expiresDate = Date{sqlite3_column_double(statement, 8)};
  }
  cookie.creationDate = Date{sqlite3_column_double(statement, 9)};
  if (!CookiePolicy::isWellFormed(cookie)) return std::nullopt;

  CookieRecord record;
  record.lastUsed = sqlite3_column_int64(statement, 10);
  record.sequence = sqlite3_column_int64(statement, 11);
  if (std::min(record.lastUsed, record.sequence) < 0 ||
      std::max(record.lastUsed, record.sequence) > kLargestCount) {
    return std::nullopt;
  }
  return StoredCookie{std::move(cookie), record};
}

}  // namespace tallow
