#include "src/BagPolicy.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/Base/Clock.h"
#include "platform/Base/RegularExpression.h"

namespace tallow::BagPolicy {

namespace {

constexpr std::array<std::string_view, 11> kDefaultMachineDataKeys = {
    "authorizeMachine",      "buyProduct",  "downloads-url", "giftAccountInfoSrv", "giftBuySrv",
    "paidRedownloadProduct", "pendingApps", "pendingBooks",  "pendingSongs",       "redeemCodeSrv",
    "redownloadProduct"};

std::string_view upToQuery(std::string_view url) {
  return url.substr(0, url.find('?'));
}

// What one question may take over its patterns in all. Each has a limit of its own, but their
// number has none.
constexpr double kPatternSeconds = 1;
// The same for what is looked through at once: far above any bag's, and nothing a caller would
// notice.
constexpr std::ptrdiff_t kMostHostPatterns = 1000;
constexpr std::ptrdiff_t kMostMachineDataKeys = 10'000;
// A host has 253.
constexpr std::size_t kMaxHostPatternBytes = 256;

auto endOfFirst(const Array& array, std::ptrdiff_t most) {
  return array.begin() + std::min(most, array.end() - array.begin());
}

bool matchesSomewhere(const Value& pattern, const std::string& text) {
  const std::string* string = pattern.string();
  if (string == nullptr) return false;
  const auto expression = RegularExpression::compile(*string, {.caseInsensitive = true});
  return expression && expression->firstMatchIn(text) == RegularExpression::Match::Found;
}

}  // namespace

bool urlIsTrusted(const Dictionary& bag, const URL& url) {
  if (url.scheme() == "data") return true;
  const std::string_view host = url.host();
  const Array* domains = bag["trustedDomains"].array();
  if (host.empty() || domains == nullptr) return false;
  return std::any_of(domains->begin(), domains->end(), [host](const Value& domain) {
    const std::string* suffix = domain.string();
    return suffix != nullptr && !suffix->empty() && host.ends_with(*suffix);
  });
}

bool urlRequiresAMD(const Dictionary& bag, const URL& url) {
  const Array* patterns = bag["amd-domains"].array();
  if (patterns == nullptr) return false;
  const auto end = endOfFirst(*patterns, kMostHostPatterns);
  return std::any_of(patterns->begin(), end, [&url](const Value& pattern) {
    const std::string* string = pattern.string();
    return string != nullptr && string->size() <= kMaxHostPatternBytes && !url.host().empty() &&
           isLikeIgnoringCase(url.host(), *string);
  });
}

bool urlRequiresMD(const Dictionary& bag, const URL& url) {
  const std::string_view wanted = upToQuery(url.absoluteString());
  const auto namesURL = [&](std::string_view key) {
    const std::string* candidate = bag[key].string();
    return candidate != nullptr && upToQuery(*candidate) == wanted;
  };
  if (const Array* keys = bag["md-data-requested"].array()) {
    return std::any_of(keys->begin(), endOfFirst(*keys, kMostMachineDataKeys),
                       [&](const Value& key) {
                         const std::string* name = key.string();
                         return name != nullptr && namesURL(*name);
                       });
  }
  return std::any_of(kDefaultMachineDataKeys.begin(), kDefaultMachineDataKeys.end(), namesURL);
}

bool sendGUIDWithURL(const Dictionary& bag, const URL& url) {
  const Dictionary* rules = bag["guid-urls"].dictionary();
  if (rules == nullptr) return url.scheme() == "https";
  if (const Array* schemes = (*rules)["schemes"].array()) {
    const bool allowed = std::any_of(schemes->begin(), schemes->end(), [&url](const Value& scheme) {
      const std::string* string = scheme.string();
      return string != nullptr && *string == url.scheme();
    });
    if (!allowed) return false;
  }
  // Without a usable "regex" list the rules allow the GUID for no URL at all.
  const Array* patterns = (*rules)["regex"].array();
  if (patterns == nullptr) return false;
  Clock& clock = Clock::shared();
  const double start = clock.monotonicSeconds();
  return std::any_of(patterns->begin(), patterns->end(), [&](const Value& pattern) {
    return clock.monotonicSeconds() - start < kPatternSeconds &&
           matchesSomewhere(pattern, url.absoluteString());
  });
}

}  // namespace tallow::BagPolicy
