#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Cookies/CookieJar.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {

inline URL url(std::string_view text) {
  const auto parsed = URL::parse(text);
  if (!parsed) ADD_FAILURE() << "no URL: " << text;
  return parsed ? *parsed : *URL::parse("http://invalid.test/");
}

inline CookieDecision setCookie(CookieJar& jar, std::string_view line, std::string_view from) {
  const auto parsed = parseSetCookie(line);
  if (!parsed) ADD_FAILURE() << "no cookie: " << line;
  return parsed ? jar.setCookies({*parsed}, url(from)).at(0) : CookieDecision::EmptyNameAndValue;
}

// Each in a response of its own.
inline void setCookies(CookieJar& jar, std::string_view from,
                       std::initializer_list<std::string_view> lines) {
  for (const std::string_view line : lines) setCookie(jar, line, from);
}

// The Cookie header that a request to `to` gets.
inline std::string header(CookieJar& jar, std::string_view to) {
  const URL address = url(to);
  return cookieHeaderValue(jar.cookiesForURL(address, address.scheme() == "https"));
}

// A folder of its own, a clock that stands still, and every log line caught.
class JarFixture : public ::testing::Test {
 protected:
  std::filesystem::path file() const { return folder / "com.example.store.cookies"; }
  std::unique_ptr<CookieJar> open(CookieJar::Limits limits = {}) {
    auto jar = CookieJar::open(file(), limits);
    if (!jar) ADD_FAILURE() << jar.error().localizedDescription();
    return jar ? std::move(*jar) : nullptr;
  }

  TemporaryFolder folder;
  ManualClock clock{Date{1'700'000'000}};
  ScopedShared<Clock> sharedClock{clock};
  CapturedLog log;
};

}  // namespace tallow
