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
#include "platform/Cookies/Cookie.h"
#include "platform/Cookies/CookieDate.h"
#include "platform/Cookies/CookiePolicy.h"
#include "platform/Cookies/SetCookieParser.h"

namespace tallow {

// A jar of cookies in one file, held in memory while open. Every change is one transaction on disk
// before the call returns. Several processes, and several jars of one process, may have the same
// file open: each sees what another has stored at its next call.
//
// The service is launched on demand and ends when idle, so that a session is not the life of a
// process: session cookies are kept like others, until the server or deleteAllCookies() takes them
// away or others crowd them out.
//
// Limits: at most 180 cookies a domain and 3,300 a jar; the expired go first, then the least
// recently used (within a crowded domain those that are not Secure before those that are). A
// corrupt file is set aside, logged, and a fresh one begun; a file of a newer version is logged and
// left alone, and the jar then lives in memory. When the disk refuses, the jar goes on in memory,
// logs, and tries again with the next change.
//
// Callable from any thread; calls wait for one another.
class CookieJar {
 public:
  static constexpr const char* kClassName = "CookieJar";  // in log lines

  struct Limits {
    std::size_t cookiesPerDomain = 180;
    std::size_t cookiesPerJar = 3300;
  };

  virtual ~CookieJar() = default;

  // An error, logged, only for a file that is there and cannot be read.
  static Result<std::unique_ptr<CookieJar>> open(const std::filesystem::path& path);
  static Result<std::unique_ptr<CookieJar>> open(const std::filesystem::path& path, Limits limits);
  // The process's default jar (used by preference only), and the jar that a group of processes
  // shares under a group-container identifier; each is one object while the process lives. Null
  // when it cannot be opened.
  static std::shared_ptr<CookieJar> shared();
  static std::shared_ptr<CookieJar> sharedForGroupContainer(std::string_view identifier);

  // The cookies to send to `url`, in the order of RFC 6265 section 5.4 (longer paths first, then
  // older first). Expired cookies never; Secure cookies only when `secureAllowed`.
  virtual std::vector<CookiePointer> cookiesForURL(const URL& url, bool secureAllowed) = 0;
  // Judges each parsed cookie against `url` and stores what passes, all in one transaction.
  virtual std::vector<CookieDecision> setCookies(const std::vector<ParsedCookie>& cookies,
                                                 const URL& url) = 0;
  virtual void deleteAllCookies() = 0;
  // The code of synchronize() where the file is of a newer version of this class: it is left alone,
  // and what is changed lives as long as the process.
  static constexpr std::int64_t kNewerVersion = -1;
  // Makes every change so far durable against a power cut. The error, logged, when that failed.
  virtual std::optional<Error> synchronize() = 0;
  // The cookies that have not expired.
  virtual std::size_t count() = 0;
};

}  // namespace tallow
