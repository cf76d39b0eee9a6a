// The client's calls that are about accounts and signing in.

#include <utility>

#include "client/AccountServiceClient.h"
#include "client/ClientCalls.h"

namespace tallow {

namespace {

std::optional<Dictionary> firstAccount(std::vector<WireDictionary> accounts) {
  return accounts.empty() ? std::nullopt : std::optional(std::move(accounts.front().value));
}

std::optional<std::string> firstText(std::vector<std::string> texts) {
  return texts.empty() ? std::nullopt : std::optional(std::move(texts.front()));
}

}  // namespace

Result<std::vector<Dictionary>> AccountServiceClient::accounts() {
  return ask(*_connection, [](ServiceSession& service) {
    std::vector<Dictionary> accounts;
    for (WireDictionary& account : service.accounts()) accounts.push_back(std::move(account.value));
    return accounts;
  });
}

Result<std::optional<Dictionary>> AccountServiceClient::primaryAccount() {
  return ask(*_connection,
             [](ServiceSession& service) { return firstAccount(service.primaryAccount()); });
}

Result<std::optional<Dictionary>> AccountServiceClient::accountWithDSID(std::uint64_t dsID) {
  return ask(*_connection,
             [&](ServiceSession& service) { return firstAccount(service.accountWithDSID(dsID)); });
}

Result<std::optional<Dictionary>> AccountServiceClient::accountWithVantorID(
    const std::string& vantorID) {
  return ask(*_connection, [&](ServiceSession& service) {
    return firstAccount(service.accountWithVantorID(vantorID));
  });
}

Result<std::optional<std::string>> AccountServiceClient::strongToken() {
  return ask(*_connection, [](ServiceSession& service) {
    return firstText(service.strongTokenForAccount(WireDictionary()));
  });
}

Result<bool> AccountServiceClient::authIsExpired() {
  return ask(*_connection, [](ServiceSession& service) { return service.authIsExpired(); });
}

Result<std::optional<Dictionary>> AccountServiceClient::addAccountWithAuthenticationResponse(
    const Dictionary& response, bool makePrimary) {
  return ask(*_connection, [&](ServiceSession& service) {
    return firstAccount(
        service.addAccountWithAuthenticationResponse(wireDictionary(response), makePrimary));
  });
}

std::optional<Error> AccountServiceClient::addAccount(const Dictionary& account) {
  return tell(*_connection,
              [&](ServiceSession& service) { service.addAccount(wireDictionary(account)); });
}

Result<AccountServiceClient::SignIn> AccountServiceClient::signInWithContext(
    const Dictionary& context) {
  return ask(*_connection, [&](ServiceSession& service) {
    auto [success, account, error] = service.signInWithContext(wireDictionary(context));
    return SignIn{success, firstAccount(std::move(account)), firstError(error)};
  });
}

std::optional<Error> AccountServiceClient::signOut() {
  return tell(*_connection, [](ServiceSession& service) { service.signOut(); });
}

std::optional<Error> AccountServiceClient::parseCreditStringForProtocol(
    const Dictionary& protocol) {
  return tell(*_connection, [&](ServiceSession& service) {
    service.parseCreditStringForProtocol(wireDictionary(protocol));
  });
}

Result<std::optional<bool>> AccountServiceClient::eligibilityForService(std::uint64_t service) {
  return ask(*_connection, [&](ServiceSession& session) -> std::optional<bool> {
    const auto eligible = session.eligibilityForService(service);
    if (eligible.empty() || eligible.front().value.boolean() == nullptr) return std::nullopt;
    return *eligible.front().value.boolean();
  });
}

Result<AccountServiceClient::Eligibility> AccountServiceClient::getEligibilityForService(
    std::uint64_t service) {
  return ask(*_connection, [&](ServiceSession& session) {
    auto [eligible, error] = session.getEligibilityForService(service);
    return Eligibility{eligible, firstError(error)};
  });
}

Result<AccountServiceClient::DemoMode> AccountServiceClient::retailStoreDemoMode() {
  return ask(*_connection, [](ServiceSession& service) {
    auto [demoMode, name, password, autoLogin] = service.retailStoreDemoMode();
    return DemoMode{demoMode, firstText(std::move(name)), firstText(std::move(password)),
                    autoLogin};
  });
}

Result<std::optional<std::string>> AccountServiceClient::nimboDSID() {
  return ask(*_connection, [](ServiceSession& service) { return firstText(service.nimboDSID()); });
}

Result<std::optional<std::string>> AccountServiceClient::recommendedVantorIDForAccountSignIn() {
  return ask(*_connection, [](ServiceSession& service) {
    return firstText(service.recommendedVantorIDForAccountSignIn());
  });
}

std::optional<Error> AccountServiceClient::observeAccounts(AccountObserver observer) {
  return attempt([&] { _connection->observeAccounts(std::move(observer)); });
}

}  // namespace tallow
