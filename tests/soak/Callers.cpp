#include "tests/soak/Callers.h"

#include <functional>
#include <string>

namespace tallow {

Callers::Callers(SoakWorld& world, SoakCalls& calls, int count, std::uint64_t seed)
    : _world(world), _calls(calls) {
  for (int number = 0; number < count; ++number)
    _threads.emplace_back([this, seed = seed + static_cast<std::uint64_t>(number)] { run(seed); });
}

Callers::~Callers() {
  _isEnding = true;
  for (std::thread& thread : _threads) thread.join();
}

void Callers::run(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  while (!_isEnding) {
    AccountServiceClient client(AccountServiceClient::Instance::Agent);
    const std::string identifier =
        SoakWorld::client(static_cast<int>(random() % SoakWorld::kClients));
    if (!_calls.make("actAs", 25, [&] { return client.actAs(identifier); })) continue;
    for (std::uint64_t left = random() % 60; left > 0 && !_isEnding; --left)
      callOnce(client, random());
  }
}

void Callers::callOnce(AccountServiceClient& client, std::uint64_t what) {
  // With as long as the interface says that the call may take.
  const auto question = [this](const char* name, double seconds, auto ask) {
    return [=, this] { _calls.make(name, seconds, ask); };
  };
  const std::string page = _world.storeURL("/store/page");
  const std::function<void()> questions[] = {
      question("httpHeadersForURL", 300, [&] { return client.httpHeadersForURL(page, 42, true); }),
      question("valueForURLBagKey", 180,
               [&] { return client.valueForURLBagKey("authenticateAccount"); }),
      question("urlIsTrustedByURLBag", 180, [&] { return client.urlIsTrustedByURLBag(page); }),
      question("loadURLBagWithType", 180, [&] { return client.loadURLBagWithType(1); }),
      question("dictionary", 180, [&] { return client.dictionary(); }),
      question("invalidateAllBags", 180, [&] { return client.invalidateAllBags(); }),
      question("isValid", 180, [&] { return client.isValid(); }),
      question("regexWithKey", 180,
               [&] { return client.regexWithKey("no such pattern", std::string(5000, 'a')); }),
      question(
          "consumeCookies", 180,
          [&] {
            return client.consumeCookiesWithHTTPHeaders({{"Set-Cookie", "noise=1; Path=/"}}, page);
          }),
      question("accounts", 25, [&] { return client.accounts(); }),
      question("strongToken", 25, [&] { return client.strongToken(); }),
      question("getEligibilityForService", 150, [&] { return client.getEligibilityForService(1); }),
      question("retailStoreDemoMode", 25, [&] { return client.retailStoreDemoMode(); }),
      question("getPasswordSettings", 300, [&] { return client.passwordSettings(); }),
      question("registerDeviceToken", 300,
               [&] { return client.registerDeviceTokenForEnvironmentNamed("production"); }),
      question("getEnabledMediaTypes", 300, [&] { return client.getEnabledMediaTypes(); }),
      question("handlePush", 25,
               [&] {
                 return client.handlePushNotificationMessage({{"0", 42}, {"1", 2}});
               }),
      question("handlePermissionPush", 25,
               [&] {
                 return client.handlePushNotificationMessage({{"0", 42}, {"1", 7}});
               }),
      question("signInWithContext", 660, [&] { return client.signInWithContext({}); }),
      question("describe", 25, [&] { return client.describe(); }),
      question("too large an argument", 180,
               [&] { return client.valueForURLBagKey(std::string(2 << 20, 'k')); }),
      question("observeURLBag", 180,
               [&] { return client.observeURLBag([](auto, const auto&) {}); }),
      question("observeAccounts", 25, [&] { return client.observeAccounts([](const auto&) {}); }),
  };
  questions[what % std::size(questions)]();
}

}  // namespace tallow
