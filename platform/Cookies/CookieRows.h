#pragma once

#include <sqlite3.h>

#include <optional>

#include "platform/Cookies/CookieChanges.h"

namespace tallow {

// How a jar's file spells a cookie: the table, the statements on it, and what stands in which
// column. Private to CookieDatabase. What is bound stays the caller's and must outlive the
// statement's run.
class CookieRows {
 public:
  static constexpr int kVersion = 1;
  static constexpr const char* kSchema =
      "CREATE TABLE cookies ("
      "  domain TEXT NOT NULL, path TEXT NOT NULL, name TEXT NOT NULL, host_only INTEGER NOT NULL,"
      "  value TEXT NOT NULL, secure INTEGER NOT NULL, http_only INTEGER NOT NULL,"
      "  same_site INTEGER NOT NULL,"
      "  expires REAL,"                // seconds since 1970; NULL: a session cookie
      "  created REAL NOT NULL,"       // seconds since 1970
      "  last_used INTEGER NOT NULL,"  // microseconds since 1970
      "  sequence INTEGER NOT NULL,"   // the order of creation
      "  PRIMARY KEY (domain, path, name, host_only)) WITHOUT ROWID;"
      "PRAGMA user_version = 1";
  static constexpr const char* kSelect =
      "SELECT domain, path, name, host_only, value, secure, http_only, same_site, expires, created,"
      " last_used, sequence FROM cookies";
  static constexpr const char* kPut =
      "INSERT OR REPLACE INTO cookies (domain, path, name, host_only, value, secure, http_only,"
      " same_site, expires, created, last_used, sequence)"
      " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
  static constexpr const char* kRemove =
      "DELETE FROM cookies WHERE domain = ?1 AND path = ?2 AND name = ?3 AND host_only = ?4";
  static constexpr const char* kUse =
      "UPDATE cookies SET last_used = max(last_used, ?5)"
      " WHERE domain = ?1 AND path = ?2 AND name = ?3 AND host_only = ?4";

  static void bindIdentity(sqlite3_stmt* statement, const Cookie& cookie);  // for kRemove
  static void bind(sqlite3_stmt* statement, const CookieRow& row);          // for kPut
  static void bindUse(sqlite3_stmt* statement, const CookieRow& row);       // for kUse
  // The row that a run of kSelect stands on; nullopt when no jar could have written it.
  static std::optional<StoredCookie> read(sqlite3_stmt* statement);
};

}  // namespace tallow
