#include "bench/IdentityFigures.h"

#include <string>

namespace tallow::bench {

namespace {

// The store marks its page to buy at for the account's identity, and its host for the machine's.
std::string markedURL() {
  const char* const store = std::getenv("TALLOW_DEVSTORE_HTTPS");
  if (store == nullptr) fail("the store", "TALLOW_DEVSTORE_HTTPS is not set");
  return std::string(store) + "/store/buyProduct";
}

}  // namespace

void measureIdentityHeaders(Bus& bus) {
  const std::string url = markedURL();
  const auto headers = [&] { return bus.identityHeaders(url.c_str(), 0); };
  if (headers() != 4) fail("machine identity", "the machine is not provisioned");
  print("identity_headers_p50_over_ping", ratioInTurns(4000, headers, [&] { bus.ping(); }),
        "ratio");
}

}  // namespace tallow::bench
