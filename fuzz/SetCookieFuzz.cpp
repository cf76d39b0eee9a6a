// Whatever a server writes into Set-Cookie: what is stored keeps the rules of a jar, a request that
// carries it is one request, and what it means does not change when it is written again.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "platform/Cookies/CookieDate.h"
#include "platform/Cookies/CookiePolicy.h"
#include "platform/Cookies/CookieTable.h"
#include "platform/Cookies/SetCookieParser.h"

using namespace tallow;

static void check(bool holds) {
  if (!holds) std::abort();
}

// As RFC 9110 section 5.6.7 writes it.
static std::string dateText(Date date) {
  using namespace std::chrono;
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const sys_seconds moment{seconds(static_cast<long long>(date.secondsSince1970))};
  const year_month_day day(floor<days>(moment));
  const hh_mm_ss time(moment - floor<days>(moment));
  char text[64];
  std::snprintf(text, sizeof text, "%02u %s %04d %02d:%02d:%02d GMT",
                static_cast<unsigned>(day.day()), kMonths[static_cast<unsigned>(day.month()) - 1],
                static_cast<int>(day.year()), static_cast<int>(time.hours().count()),
                static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
  return text;
}

static void checkCookie(const ParsedCookie& parsed, const Cookie& cookie, Date now) {
  check(CookiePolicy::isWellFormed(cookie));
  check(CookiePolicy::domainMatches("www.store.example", cookie.domain));
  check(!cookie.expiresDate ||
        cookie.expiresDate->secondsSince(now) <= CookiePolicy::kLongestLifetimeSeconds);

  const std::string header = cookieHeaderValue({std::make_shared<const Cookie>(cookie)});
  check(header.find_first_of(std::string_view("\r\n\0;", 4)) == std::string::npos);
  if (cookie.name.empty()) return;
  const auto again = parseSetCookie(header);
  check(again && again->name == parsed.name && again->value == parsed.value);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const URL url = *URL::parse("https://www.store.example/catalogue/item");
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Date now{1'700'000'000};

  CookieTable table;
  const Dictionary headers{{"Set-Cookie", text}};
  for (const std::string_view line : setCookieLines(headers, size + 1)) {
    const auto parsed = parseSetCookie(line);
    if (!parsed) continue;
    if (parsed->expires) check(parseCookieDate(dateText(*parsed->expires)) == parsed->expires);
    CookiePolicy::Judgement judgement = CookiePolicy::judge(*parsed, url, now);
    if (judgement.decision != CookieDecision::Stored) continue;
    checkCookie(*parsed, judgement.cookie, now);
    table.put(std::move(judgement.cookie), now);
    table.trimDomain("store.example", 8);
  }

  std::size_t pathLength = CookiePolicy::kLongestPath;
  for (const CookieTable::Match& match : table.match(url, true, now)) {
    check(match.cookie().path.size() <= pathLength);
    pathLength = match.cookie().path.size();
  }
  check(table.countInDomain("store.example") <= 8);
  return 0;
}
