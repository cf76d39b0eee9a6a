// The operations of AccountServiceInterface that are about pushes and the set-up of a new device.

#include "platform/Base/Clock.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "platform/VendBase/SystemLog.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "src/AccountService/AccountStore.h"
#include "src/CookieStorage.h"
#include "src/OrvController.h"
#include "src/PushServiceStoreDispatch.h"
#include "src/StoreFrontController.h"

namespace tallow {

namespace {

// Gives a host to the cookies of a set-up response that name no domain of their own: the store's
// public web site.
constexpr const char* kSetupCookieURL = "http://store.vantor.com";

// How long the agents stay as they were found; a burst of pushes does not look each time.
constexpr double kSystemClientsSeconds = 1;

std::optional<std::string> typeNameOrNil(const Value& value) {
  return value.isNil() ? std::nullopt : std::optional<std::string>(value.typeName());
}

}  // namespace

// Push

void AccountServiceInterface::registerDeviceTokenForEnvironmentNamed(
    std::string environmentName, Reply<bool, std::optional<Error>> reply) {
  onRequestQueue([this, environmentName = std::move(environmentName), reply = std::move(reply)] {
    if (const auto dispatch =
            PushServiceStoreDispatch::pushServiceStoreDispatchForClient(storeClient()))
      dispatch->registerDeviceTokenForEnvironmentNamed(environmentName, reply);
  });
}

void AccountServiceInterface::getEnabledMediaTypes(
    Reply<bool, std::optional<Error>, std::int64_t> reply) {
  logLevel(3, "%s", "-[AccountServiceInterface getEnabledMediaTypesWithReply:]");
  onRequestQueue([this, reply = std::move(reply)] {
    if (const auto dispatch =
            PushServiceStoreDispatch::pushServiceStoreDispatchForClient(storeClient()))
      dispatch->getEnabledMediaTypes(reply);
  });
}

void AccountServiceInterface::enableAutoDownloadForEnvironmentNamed(
    std::string environmentName, Reply<bool, std::optional<Error>> reply) {
  onRequestQueue([this, environmentName = std::move(environmentName), reply = std::move(reply)] {
    if (const auto dispatch =
            PushServiceStoreDispatch::pushServiceStoreDispatchForClient(storeClient()))
      dispatch->enableAutoDownloadForEnvironmentNamed(environmentName, reply);
  });
}

void AccountServiceInterface::disableAutoDownload(Reply<bool, std::optional<Error>> reply) {
  onRequestQueue([this, reply = std::move(reply)] {
    if (const auto dispatch =
            PushServiceStoreDispatch::pushServiceStoreDispatchForClient(storeClient()))
      dispatch->disableAutoDownload(reply);
  });
}

void AccountServiceInterface::isRegisteredForAccount(
    std::uint64_t dsID, std::int64_t andMask, Reply<bool, std::optional<Error>, bool> reply) {
  onRequestQueue([this, dsID, andMask, reply = std::move(reply)] {
    if (const auto dispatch =
            PushServiceStoreDispatch::pushServiceStoreDispatchForClient(storeClient()))
      dispatch->isRegisteredForAccount(dsID, andMask, reply);
  });
}

void AccountServiceInterface::handlePushNotificationMessage(Dictionary message, Done reply) {
  nowOrOnRequestQueue(
      [&] {
        if (!PushServiceStoreDispatch::handlePushNotificationMessageIfIdle(message,
                                                                           pushClientsIfAtHand()))
          return false;
        send(reply);
        return true;
      },
      [this, message, reply] {
        for (const auto& client : pushClients())
          if (const auto dispatch =
                  PushServiceStoreDispatch::pushServiceStoreDispatchForClient(client))
            dispatch->handlePushNotificationMessage(message);
        send(reply);
      });
}

std::vector<std::shared_ptr<const HSStoreClient>> AccountServiceInterface::pushClients() const {
  if (storeClient()) return {storeClient()};
  // Whoever is no store client itself speaks for the system: both agents hear of it.
  std::vector<std::shared_ptr<const HSStoreClient>> agents = {
      HSStoreClient::initWithStoreClientType(kHSStoreClientTypeStoreAgent),
      HSStoreClient::initWithStoreClientType(kHSStoreClientTypeBookStoreAgent)};
  const std::lock_guard guard(_systemClients.lock);
  _systemClients.clients = agents;
  _systemClients.foundSeconds = Clock::shared().monotonicSeconds();
  return agents;
}

std::vector<std::shared_ptr<const HSStoreClient>> AccountServiceInterface::pushClientsIfAtHand()
    const {
  if (storeClient()) return {storeClient()};
  const std::lock_guard guard(_systemClients.lock);
  const double age = Clock::shared().monotonicSeconds() - _systemClients.foundSeconds;
  return age <= kSystemClientsSeconds ? _systemClients.clients : decltype(_systemClients.clients)();
}

// Device set-up

HSAccountService::Account AccountServiceInterface::accountFromSetupResponse(
    const Dictionary& response) const {
  auto account = std::make_shared<HSStoreAccount>();
  const std::optional<std::string> client =
      storeClient() ? storeClient()->identifier : std::nullopt;

  const Value& dsID = response["dsid"];
  if (dsID.string() != nullptr) {
    account->setDsID(static_cast<std::uint64_t>(dsID.longLongValue().value_or(0)));
  } else if (dsID.isNumber()) {
    account->setDsID(dsID.unsignedValue());
  } else {
    systemLog("%@: %@ dsid is unexpected type (%@)", kClassName, client, typeNameOrNil(dsID));
  }

  const Value& active = response["account-active"];
  if (const std::optional<bool> isActive = active.boolValue()) {
    account->setIsSignedIn(*isActive);
  } else {
    account->setIsSignedIn(false);
    if (active.isNil()) {
      systemLog(
          "%@: %@ account-active not present in account data, assuming account is not signed in %@",
          kClassName, client, response);
    } else {
      systemLog(
          "%@: %@ account-active is unexpected type (%@), assuming account is not signed in %@",
          kClassName, client, active.typeName(), response);
    }
  }

  auto email = response["email"].stringOrNil();
  if (email && email->size() > HSAuthenticationResponse::kMaxTextBytes) {
    systemLog("%@: %@ email is too long", kClassName, client);
    email.reset();
  }
  account->setIdentifier(std::move(email));
  return account;
}

void AccountServiceInterface::completeSetupWithResponse(Dictionary response,
                                                        Reply<bool, std::optional<Error>> reply) {
  onRequestQueue([this, response = std::move(response), reply = std::move(reply)] {
    const auto account = accountFromSetupResponse(response);
    if (const auto store = accountStore(); store && store->addAccount(account))
      store->makeAccountPrimary(account);
    if (response.contains("cookies")) {
      const Dictionary headers{{"Set-Cookie", response["cookies"]}};
      if (const auto storage = CookieStorage::storageForClient(storeClient()))
        storage->consumeCookiesWithHTTPHeaders(headers, URL::parse(kSetupCookieURL),
                                               CookieStorage::Origin::DeviceSetUp);
      OrvController::sharedController().processHTTPHeaders(headers, storeClient());
    }
    // Also when the response names none: then the one that was stored goes.
    if (const auto controller = StoreFrontController::storefrontControllerForClient(storeClient()))
      controller->setStoreFrontID(response["storefront"].stringOrNil());
    send(reply, true, std::nullopt);
  });
}

}  // namespace tallow
