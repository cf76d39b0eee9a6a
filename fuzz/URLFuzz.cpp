// The trust decision and the fetch read the host from one parse: whatever the text, the host must
// be one, and reading the text again must give the same.

#include <cstdlib>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "platform/Base/URL.h"

using namespace tallow;

static void check(bool holds) {
  if (!holds) std::abort();
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string_view first = text.substr(0, text.find('\n'));
  const auto url = URL::parse(first);
  if (!url) return 0;

  check(url->absoluteString() == first);
  check(url->host().find_first_of("/\\@?#\r\n\t ") == std::string::npos);
  check(url->port() >= 0 && url->port() <= 65535);

  const URL extended = url->urlByAddingStringToQueryString("guid=1");
  check(extended.host() == url->host() && extended.scheme() == url->scheme() &&
        extended.port() == url->port() && extended.path() == url->path());

  // The rest is a reference, as a redirect would give it.
  if (first.size() < text.size()) {
    if (const auto target = url->resolving(text.substr(first.size() + 1))) {
      const auto again = URL::parse(target->absoluteString());
      check(again && again->host() == target->host());
    }
  }
  return 0;
}
