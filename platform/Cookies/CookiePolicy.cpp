#include "platform/Cookies/CookiePolicy.h"

#include <arpa/inet.h>
#include <libpsl.h>

#include <algorithm>
#include <limits>

#include "platform/Base/ASCII.h"
#include "platform/Base/LazyLibrary.h"

namespace tallow {
namespace {

constexpr std::string_view kSecurePrefix = "__Secure-";
constexpr std::string_view kHostPrefix = "__Host-";

bool isIPAddress(const std::string& text) {
  in6_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// An IPv6 address as a URL spells it, without its brackets.
std::string withoutBrackets(const std::string& domain) {
  if (domain.size() > 2 && domain.front() == '[' && domain.back() == ']') {
    return domain.substr(1, domain.size() - 2);
  }
  return domain;
}

// Fills domain and hostOnly. An address, a single label and a public suffix have no domain cookies;
// naming itself, such a host gets a host-only one.
CookieDecision judgeDomain(Cookie& cookie, const ParsedCookie& parsed, const URL& url) {
  const std::string& host = url.canonicalHost();
  if (host.empty() || host.size() > CookiePolicy::kLongestDomain) {
    return CookieDecision::DomainMismatch;
  }
  cookie.domain = host;
  cookie.hostOnly = true;
  if (!parsed.domain || parsed.domain->empty()) return CookieDecision::Stored;

  const std::string domain = withoutBrackets(*parsed.domain);
  if (url.hostIsIPAddress() || isIPAddress(domain)) {
    return domain == host ? CookieDecision::Stored : CookieDecision::DomainMismatch;
  }
  if (std::any_of(domain.begin(), domain.end(), [](char c) { return (c & 0x80) != 0; })) {
    return CookieDecision::DomainMismatch;
  }
  if (CookiePolicy::isPublicSuffix(domain)) {
    return domain == host ? CookieDecision::Stored : CookieDecision::PublicSuffix;
  }
  if (!CookiePolicy::domainMatches(host, domain)) return CookieDecision::DomainMismatch;
  cookie.domain = domain;
  cookie.hostOnly = false;
  return CookieDecision::Stored;
}

bool fulfilsPrefix(const Cookie& cookie, const ParsedCookie& parsed) {
  // A cookie without a name is sent as its value alone, which must not pass for a prefixed name.
  if (cookie.name.empty()) {
    return !ascii::startsWithIgnoringCase(cookie.value, kSecurePrefix) &&
           !ascii::startsWithIgnoringCase(cookie.value, kHostPrefix);
  }
  if (ascii::startsWithIgnoringCase(cookie.name, kSecurePrefix)) return cookie.secure;
  if (ascii::startsWithIgnoringCase(cookie.name, kHostPrefix)) {
    return cookie.secure && cookie.hostOnly && parsed.path && cookie.path == "/";
  }
  return true;
}

// Max-Age wins over Expires, and neither may reach further than the longest lifetime.
std::optional<Date> expiry(const ParsedCookie& parsed, Date now) {
  const Date latest = now.addingSeconds(CookiePolicy::kLongestLifetimeSeconds);
  if (parsed.maxAgeSeconds) {
    if (*parsed.maxAgeSeconds <= 0) return Date{std::numeric_limits<double>::lowest()};
    return std::min(latest, now.addingSeconds(static_cast<double>(*parsed.maxAgeSeconds)));
  }
  if (parsed.expires) return std::min(latest, *parsed.expires);
  return std::nullopt;
}

// The list of public suffixes, in a library that is loaded when a cookie first names a domain.
class PublicSuffixes {
 public:
  PublicSuffixes() {
    const LazyLibrary library("libpsl.so.5");
    decltype(&psl_builtin) builtIn = nullptr;
    if (library.find(builtIn, "psl_builtin") && library.find(_isSuffix, "psl_is_public_suffix"))
      _list = builtIn();
  }
  // Without the library or its list no registry is known, so that every name has to pass for one.
  bool contain(const std::string& domain) const {
    return _list == nullptr || _isSuffix(_list, domain.c_str()) == 1;
  }

 private:
  const psl_ctx_t* _list = nullptr;
  decltype(&psl_is_public_suffix) _isSuffix = nullptr;
};

}  // namespace

CookiePolicy::Judgement CookiePolicy::judge(const ParsedCookie& parsed, const URL& url, Date now) {
  const auto refused = [](CookieDecision why) { return Judgement{why, {}}; };
  if (parsed.name.empty() && parsed.value.empty()) {
    return refused(CookieDecision::EmptyNameAndValue);
  }
  if (parsed.name.size() + parsed.value.size() > kLargestNameAndValue) {
    return refused(CookieDecision::TooLarge);
  }

  Judgement judgement;
  Cookie& cookie = judgement.cookie;
  if (const auto why = judgeDomain(cookie, parsed, url); why != CookieDecision::Stored) {
    return refused(why);
  }
  cookie.name = parsed.name;
  cookie.value = parsed.value;
  cookie.path =
      parsed.path && !parsed.path->empty() ? *parsed.path : std::string(defaultPath(url.path()));
  cookie.creationDate = now;
  cookie.expiresDate = expiry(parsed, now);
  cookie.secure = parsed.secure;
  cookie.httpOnly = parsed.httpOnly;
  cookie.sameSite = parsed.sameSite;

  if (cookie.path.size() > kLongestPath) return refused(CookieDecision::TooLarge);
  if (ascii::hasControl(cookie.name) || ascii::hasControl(cookie.value) ||
      ascii::hasControl(cookie.path)) {
    return refused(CookieDecision::ControlCharacter);
  }
  if (cookie.secure && !isSecure(url)) return refused(CookieDecision::InsecureOrigin);
  if (cookie.sameSite == Cookie::SameSite::None && !cookie.secure) {
    return refused(CookieDecision::SameSiteRule);
  }
  if (!fulfilsPrefix(cookie, parsed)) return refused(CookieDecision::PrefixRule);
  if (cookie.expiresDate && *cookie.expiresDate <= now) {
    judgement.decision = CookieDecision::Removed;
  }
  return judgement;
}

bool CookiePolicy::domainMatches(std::string_view host, std::string_view domain) {
  if (!host.ends_with(domain)) return false;
  return host.size() == domain.size() || host[host.size() - domain.size() - 1] == '.';
}

bool CookiePolicy::pathMatches(std::string_view requestPath, std::string_view cookiePath) {
  if (!requestPath.starts_with(cookiePath)) return false;
  return requestPath.size() == cookiePath.size() || cookiePath.ends_with('/') ||
         requestPath[cookiePath.size()] == '/';
}

std::string_view CookiePolicy::defaultPath(std::string_view requestPath) {
  const auto lastSlash = requestPath.rfind('/');
  if (!requestPath.starts_with('/') || lastSlash == 0) return "/";
  return requestPath.substr(0, lastSlash);
}

bool CookiePolicy::isPublicSuffix(const std::string& domain) {
  static const PublicSuffixes suffixes;
  return suffixes.contain(domain);
}

bool CookiePolicy::isWellFormed(const Cookie& cookie) {
  return !(cookie.name.empty() && cookie.value.empty()) &&
         cookie.name.size() + cookie.value.size() <= kLargestNameAndValue &&
         !cookie.domain.empty() && cookie.domain.size() <= kLongestDomain &&
         cookie.path.starts_with('/') && cookie.path.size() <= kLongestPath &&
         !ascii::hasControl(cookie.name) && !ascii::hasControl(cookie.value) &&
         !ascii::hasControl(cookie.path) && !ascii::hasControl(cookie.domain);
}

}  // namespace tallow
