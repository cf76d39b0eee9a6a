// Input: an address and, after a line end, a reference to resolve against it. Whatever parses has
// the host that the HTTP library connects to, and stays the same address however it is passed on. A
// host that is trusted is the one that is fetched from.

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/CurlAuthority.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Require.h"
#include "platform/Base/URL.h"
#include "src/BagPolicy.h"

using tallow::URL;

namespace {

const tallow::Dictionary kBag{{"trustedDomains", tallow::Array{".store.example"}}};

void check(const URL& url) {
  const auto again = URL::parse(url.absoluteString());
  REQUIRE(again && again->host() == url.host() && again->path() == url.path());
  REQUIRE(url.absoluteString().starts_with(url.scheme() + ":"));
  const std::string& canonical = url.canonicalHost();
  REQUIRE(canonical.empty() == url.host().empty());
  // An IPv6 address may be shorter than the one way to write it.
  REQUIRE(!canonical.ends_with('.') &&
          (canonical.size() <= url.host().size() || url.hostIsIPAddress()));
  REQUIRE(std::none_of(canonical.begin(), canonical.end(), [](char c) {
    return static_cast<unsigned char>(c) <= 0x20 || (c >= 'A' && c <= 'Z') || c < 0 || c == '@';
  }));
  // With a fragment it is the library that reads a web address, which must find the same parts.
  const bool isWeb = url.scheme() == "http" || url.scheme() == "https";
  if (isWeb && url.absoluteString().find('#') == std::string::npos) {
    const auto asTheLibraryReadsIt = URL::parse(url.absoluteString() + "#");
    REQUIRE(asTheLibraryReadsIt && asTheLibraryReadsIt->host() == url.host() &&
            asTheLibraryReadsIt->port() == url.port() &&
            asTheLibraryReadsIt->path() == url.path() &&
            asTheLibraryReadsIt->query() == url.query() &&
            asTheLibraryReadsIt->hostIsIPAddress() == url.hostIsIPAddress());
  }
  const URL longer = url.urlByAddingStringToQueryString("a=b c#d");
  REQUIRE(longer.host() == url.host() && longer.port() == url.port());
  REQUIRE(url.host().empty() || longer.query().value_or("").ends_with("a=b%20c%23d"));
  if (!isWeb) return;
  const bool isIPv6 = url.host().find(':') != std::string::npos;
  const std::string host = isIPv6 ? "[" + url.host() + "]" : url.host();
  const auto authority = tallow::authorityCurlConnectsTo(url.absoluteString());
  // In the "C" locale the library refuses international hosts altogether.
  REQUIRE(!authority || *authority == host + ":" + std::to_string(url.port()));
  if (!authority || !tallow::BagPolicy::urlIsTrusted(kBag, url)) return;
  const std::string_view fetched = std::string_view(*authority).substr(0, authority->rfind(':'));
  REQUIRE(fetched.ends_with(".store.example"));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const auto url = URL::parse(input.substr(0, end));
  if (!url) return 0;
  check(*url);
  if (end == input.size()) return 0;
  if (const auto resolved = url->resolving(input.substr(end + 1))) check(*resolved);
  return 0;
}
