#include "devstore/BagContents.h"

namespace tallow::devstore {

Dictionary bagContents(BagEnvironment environment, const std::string& base) {
  const bool isSandbox = environment == BagEnvironment::Sandbox;
  const auto url = [&](const char* path) { return Value(base + path); };
  return {
      {"bag-environment", isSandbox ? "sandbox" : "production"},

      // Policy. Only localhost asks for the anonymous machine-identity headers, so that 127.0.0.1,
      // the same store, is there to compare with.
      {"trustedDomains", Array{"localhost", "127.0.0.1", "::1"}},
      {"amd-domains", Array{"localhost", "*.localhost"}},
      {"md-data-requested", Array{"authorizeMachine", "buyProduct", "downloads-url", "pendingApps",
                                  "redownloadProduct"}},
      {"guid-urls",
       Dictionary{{"schemes", Array{"https"}},
                  {"regex", Array{"^https://localhost(:[0-9]+)?/", "[?&]wants-guid=1(&|$)"}}}},
      {"pingUrls", Array{url("/ping")}},

      // Patterns and plain values.
      {"redeem-code-pattern", "^[A-Z0-9]{12}$"},
      {"store-link-pattern", "^https?://([a-z0-9-]+\\.)*store\\.example/"},
      {"maximum-downloads", 3},
      {"offers-gifts", true},

      // The pages of the store.
      {"authorizeMachine", url("/store/authorizeMachine")},
      {"buyProduct", url("/store/buyProduct")},
      {"downloads-url", url("/store/downloads")},
      {"giftAccountInfoSrv", url("/store/giftAccountInfo")},
      {"giftBuySrv", url("/store/giftBuy")},
      {"paidRedownloadProduct", url("/store/paidRedownloadProduct")},
      {"pendingApps", url("/store/pendingApps")},
      {"pendingBooks", url("/store/pendingBooks")},
      {"pendingSongs", url("/store/pendingSongs")},
      {"redeemCodeSrv", url("/store/redeemCode")},
      {"redownloadProduct", url("/store/redownloadProduct")},

      // Accounts.
      {"authenticateAccount", url("/accounts/authenticate")},
      {"logout", url("/accounts/logout")},
      {"getSubscriptionStatusSrv", url("/accounts/subscription-status")},
      {"get-password-settings", url("/accounts/password-settings")},
      {"update-password-settings", url("/accounts/password-settings/update")},

      // Machine identity.
      {"md-finish-provisioning", url("/identity/finish-provisioning")},
      {"amd-finish-provisioning", url("/identity/anonymous/finish-provisioning")},
      {"md-sync-machine", url("/identity/sync-machine")},
      {"amd-sync-machine", url("/identity/anonymous/sync-machine")},

      // Push.
      {"push-notifications", Dictionary{{"environment", isSandbox ? "sandbox" : "production"},
                                        {"register-success", url("/push/register-success")}}},
      {"automatic-downloads2",
       Dictionary{{"register-media-types", url("/push/register-media-types")}}},
      {"enabled-media-types", url("/push/enabled-media-types")},
  };
}

}  // namespace tallow::devstore
