#include "bench/AccountFigures.h"

namespace tallow::bench {

void measureAccountQuery(Bus& bus) {
  for (std::uint64_t dsID = 1; dsID <= 10; ++dsID)
    bus.call(kService, kPath, kInterface, "addAccountWithAuthenticationResponse", "a{sv}b", 3,
             "dsid", "t", dsID, "identifier", "s", "somebody@example.com", "token", "s", "token",
             dsID == 10 ? 1 : 0);
  const auto query = [&] { bus.call(kService, kPath, kInterface, "primaryAccount", ""); };
  print("account_query_over_ping", ratioInTurns(4000, query, [&] { bus.ping(); }), "ratio");
}

}  // namespace tallow::bench
