#include "tests/soak/Callers.h"

#include <functional>
#include <iterator>
#include <string>

namespace tallow {

namespace {

// As long as the interface says that a call may take.
struct Question {
  const char* name;
  double seconds;
  std::function<bool(SoakCalls&, const Question&, AccountServiceClient&, const SoakWorld&)> ask;
};

template <class Call>
Question question(const char* name, double seconds, Call call) {
  return {name, seconds,
          [call](SoakCalls& calls, const Question& self, AccountServiceClient& client,
                 const SoakWorld& world) {
            return calls.make(self.name, self.seconds, [&] { return call(client, world); });
          }};
}

using Client = AccountServiceClient;

const std::vector<Question>& questions() {
  static const std::vector<Question> all = {
      question("httpHeadersForURL", 300,
               [](Client& client, const SoakWorld& world) {
                 return client.httpHeadersForURL(world.storeURL("/store/page"), 42, true);
               }),
      question("valueForURLBagKey", 180,
               [](Client& client, const SoakWorld&) {
                 return client.valueForURLBagKey("authenticateAccount");
               }),
      question("urlIsTrustedByURLBag", 180,
               [](Client& client, const SoakWorld& world) {
                 return client.urlIsTrustedByURLBag(world.storeURL("/store/page"));
               }),
      question("loadURLBagWithType", 180,
               [](Client& client, const SoakWorld&) { return client.loadURLBagWithType(1); }),
      question("dictionary", 180,
               [](Client& client, const SoakWorld&) { return client.dictionary(); }),
      question("invalidateAllBags", 180,
               [](Client& client, const SoakWorld&) { return client.invalidateAllBags(); }),
      question("isValid", 180, [](Client& client, const SoakWorld&) { return client.isValid(); }),
      question("regexWithKey", 180,
               [](Client& client, const SoakWorld&) {
                 return client.regexWithKey("no such pattern", std::string(5000, 'a'));
               }),
      question("consumeCookies", 180,
               [](Client& client, const SoakWorld& world) {
                 return client.consumeCookiesWithHTTPHeaders({{"Set-Cookie", "noise=1; Path=/"}},
                                                             world.storeURL("/store/page"));
               }),
      question("accounts", 25, [](Client& client, const SoakWorld&) { return client.accounts(); }),
      question("strongToken", 25,
               [](Client& client, const SoakWorld&) { return client.strongToken(); }),
      question("getEligibilityForService", 150,
               [](Client& client, const SoakWorld&) { return client.getEligibilityForService(1); }),
      question("retailStoreDemoMode", 25,
               [](Client& client, const SoakWorld&) { return client.retailStoreDemoMode(); }),
      question("getPasswordSettings", 300,
               [](Client& client, const SoakWorld&) { return client.passwordSettings(); }),
      question("registerDeviceToken", 300,
               [](Client& client, const SoakWorld&) {
                 return client.registerDeviceTokenForEnvironmentNamed("production");
               }),
      question("getEnabledMediaTypes", 300,
               [](Client& client, const SoakWorld&) { return client.getEnabledMediaTypes(); }),
      question("handlePush", 25,
               [](Client& client, const SoakWorld&) {
                 return client.handlePushNotificationMessage({{"0", 42}, {"1", 2}});
               }),
      question("handlePermissionPush", 25,
               [](Client& client, const SoakWorld&) {
                 return client.handlePushNotificationMessage({{"0", 42}, {"1", 7}});
               }),
      question("signInWithContext", 660,
               [](Client& client, const SoakWorld&) { return client.signInWithContext({}); }),
      question("describe", 25, [](Client& client, const SoakWorld&) { return client.describe(); }),
      question("too large an argument", 180,
               [](Client& client, const SoakWorld&) {
                 return client.valueForURLBagKey(std::string(2 << 20, 'k'));
               }),
      question("observeURLBag", 180,
               [](Client& client, const SoakWorld&) {
                 return client.observeURLBag([](bool, const std::optional<Error>&) {});
               }),
      question("observeAccounts", 25,
               [](Client& client, const SoakWorld&) {
                 return client.observeAccounts([](const std::optional<Dictionary>&) {});
               }),
  };
  return all;
}

}  // namespace

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
  const Question& chosen = questions()[what % questions().size()];
  chosen.ask(_calls, chosen, client, _world);
}

}  // namespace tallow
