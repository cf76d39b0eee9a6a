#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/Base/URL.h"

namespace tallow {

// One stored cookie (RFC 6265 section 5.3). Immutable once stored; shared between jar and readers.
struct Cookie {
  enum class SameSite : std::uint8_t { Unspecified, None, Lax, Strict };

  std::string name;
  std::string value;
  std::string domain;  // canonical, without leading dot
  std::string path;
  std::optional<Date> expiresDate;  // nullopt: a session cookie
  Date creationDate;
  bool hostOnly = true;
  bool secure = false;
  bool httpOnly = false;
  SameSite sameSite = SameSite::Unspecified;
};
using CookiePointer = std::shared_ptr<const Cookie>;

// A cookie as a Set-Cookie line spells it: parsed, not yet judged.
struct ParsedCookie {
  std::string name, value;
  std::optional<std::string> domain, path;
  std::optional<Date> expires;
  std::optional<std::int64_t> maxAgeSeconds;
  bool secure = false, httpOnly = false;
  Cookie::SameSite sameSite = Cookie::SameSite::Unspecified;
};

// Parses one Set-Cookie line (RFC 6265bis section 5.6). nullopt when it holds no cookie.
std::optional<ParsedCookie> parseSetCookie(std::string_view line);
// The lenient date grammar of RFC 6265 section 5.1.1.
std::optional<Date> parseCookieDate(std::string_view text);
// The Set-Cookie lines of a response header dictionary: the name matched without regard to case,
// the value a string, an array of strings, or one string of several cookies joined with commas
// (commas inside Expires are not separators). Anything else is no cookie.
std::vector<std::string> setCookieLines(const Dictionary& responseHeaders);

// Why a cookie was or was not stored.
enum class CookieDecision {
  Stored,
  Removed,  // an expired date took the stored cookie away
  EmptyNameAndValue,
  TooLarge,  // name plus value over 4096 bytes
  ControlCharacter,
  DomainMismatch,
  PublicSuffix,
  PrefixRule,      // __Host- or __Secure- without what they demand
  InsecureOrigin,  // Secure over plain http, or would overlay a Secure cookie
  HttpOnlyOverwrite,
};

// A jar of cookies in one SQLite file, held in memory while open. Every change is one transaction
// on disk before the call returns. The owner serialises access: one thread at a time.
//
// Limits: at most 180 cookies a domain and 3,300 a jar; the expired go first, then the least
// recently used. A corrupt file is set aside, logged, and a fresh one begun. When the disk refuses,
// the jar goes on in memory, logs, and tries again with the next change.
class CookieJar {
 public:
  struct Limits {
    std::size_t cookiesPerDomain = 180;
    std::size_t cookiesPerJar = 3300;
  };

  virtual ~CookieJar() = default;

  static Result<std::unique_ptr<CookieJar>> open(const std::filesystem::path& path);
  static Result<std::unique_ptr<CookieJar>> open(const std::filesystem::path& path, Limits limits);
  // The process's default jar (used by preference only), and the jar that a group of processes
  // shares under a group-container identifier. Null when it cannot be opened.
  static std::shared_ptr<CookieJar> shared();
  static std::shared_ptr<CookieJar> sharedForGroupContainer(std::string_view identifier);

  // The cookies to send to `url`, in the order of RFC 6265 section 5.4 (longer paths first, then
  // older first). Expired cookies never; Secure cookies only when `secureAllowed`.
  virtual std::vector<CookiePointer> cookiesForURL(const URL& url, bool secureAllowed) = 0;
  // Judges each parsed cookie against `url` and stores what passes, all in one transaction.
  virtual std::vector<CookieDecision> setCookies(const std::vector<ParsedCookie>& cookies,
                                                 const URL& url) = 0;
  virtual void deleteAllCookies() = 0;
  // Makes every change so far durable against a power cut. The error, logged, when that failed.
  virtual std::optional<Error> synchronize() = 0;
  virtual std::size_t count() const = 0;
};

// "name=value; name=value", empty for no cookies.
std::string cookieHeaderValue(const std::vector<CookiePointer>& cookies);

}  // namespace tallow
