// password_settings_operation_over_http: what reading the password settings takes the service, over
// one bare request of the HTTP library, on a kept connection, to the same address. The service's
// own objects as its process makes them, the store of a private world, and no bus in between.

#include <condition_variable>
#include <mutex>
#include <optional>

#include "bench/BareStoreRequest.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "src/AccountService/AccountServiceInterface.h"

namespace tallow::bench {
namespace {

// Asks, and waits for the answer; false when it holds no settings.
bool getsPasswordSettings(AccountServiceInterface& service) {
  std::mutex lock;
  std::condition_variable answered;
  std::optional<bool> hasSettings;
  service.getPasswordSettings(
      [&](const std::optional<Dictionary>& settings, const std::optional<Error>& error) {
        const std::scoped_lock guard(lock);
        hasSettings = settings && !settings->empty() && !error;
        answered.notify_one();
      });
  std::unique_lock guard(lock);
  answered.wait(guard, [&] { return hasSettings.has_value(); });
  return *hasSettings;
}

}  // namespace
}  // namespace tallow::bench

int main() {
  using namespace tallow;
  HSServiceProxy::setLocalAccountService([](std::shared_ptr<const HSStoreClient> client) {
    return std::make_shared<AccountServiceInterface>(std::move(client));
  });
  const auto client = ClientDescriptors::shared().clientWithIdentifier("com.vantor.tallowd.bench");
  if (client == nullptr) bench::fail("com.vantor.tallowd.bench", "is not described");
  const auto service = std::make_shared<AccountServiceInterface>(client);
  bench::BareStoreRequest bare;
  bench::print("password_settings_operation_over_http",
               bench::ratioInTurns(
                   1000,
                   [&] {
                     if (!bench::getsPasswordSettings(*service))
                       bench::fail("getPasswordSettings", "no settings");
                   },
                   [&] { bare.send(); }),
               "ratio");
}
