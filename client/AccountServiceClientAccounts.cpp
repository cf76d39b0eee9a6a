// The client's calls that are about accounts and signing in.

#include <utility>

#include "client/AccountServiceClient.h"
#include "client/ClientCalls.h"

namespace tallow {

Result<std::vector<Dictionary>> AccountServiceClient::accounts() {
  return ask(*_connection, [](ServiceSession& service) {
    std::vector<Dictionary> accounts;
    for (WireDictionary& account : service.accounts()) accounts.push_back(std::move(account.value));
    return accounts;
  });
}

Result<std::optional<Dictionary>> AccountServiceClient::primaryAccount() {
  return ask(*_connection,
             [](ServiceSession& service) { return firstOf(service.primaryAccount()); });
}

Result<std::optional<Dictionary>> AccountServiceClient::accountWithDSID(std::uint64_t dsID) {
  return ask(*_connection,
             [&](ServiceSession& service) { return firstOf(service.accountWithDSID(dsID)); });
}

Result<std::optional<Dictionary>> AccountServiceClient::accountWithVantorID(
    const std::string& vantorID) {
  return ask(*_connection, [&](ServiceSession& service) {
    return firstOf(service.accountWithVantorID(vantorID));
  });
}

Result<std::optional<std::string>> AccountServiceClient::strongToken() {
  return ask(*_connection, [](ServiceSession& service) {
    return firstOf(service.strongTokenForAccount(WireDictionary()));
  });
}

Result<bool> AccountServiceClient::authIsExpired() {
  return ask(*_connection, [](ServiceSession& service) { return service.authIsExpired(); });
}

Result<std::optional<Dictionary>> AccountServiceClient::addAccountWithAuthenticationResponse(
    const Dictionary& response, bool makePrimary) {
  return ask(*_connection, [&](ServiceSession& service) {
    return firstOf(
        service.addAccountWithAuthenticationResponse(wire::dictionary(response), makePrimary));
  });
}

std::optional<Error> AccountServiceClient::addAccount(const Dictionary& account) {
  return tell(*_connection,
              [&](ServiceSession& service) { service.addAccount(wire::dictionary(account)); });
}

Result<AccountServiceClient::SignIn> AccountServiceClient::signInWithContext(
    const Dictionary& context) {
  return ask(*_connection, [&](ServiceSession& service) {
    auto [success, account, error] = service.signInWithContext(wire::dictionary(context));
    return SignIn{success, firstOf(std::move(account)), firstOf(error)};
  });
}

std::optional<Error> AccountServiceClient::signOut() {
  return tell(*_connection, [](ServiceSession& service) { service.signOut(); });
}

std::optional<Error> AccountServiceClient::parseCreditStringForProtocol(
    const Dictionary& protocol) {
  return tell(*_connection, [&](ServiceSession& service) {
    service.parseCreditStringForProtocol(wire::dictionary(protocol));
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
    return Eligibility{eligible, firstOf(error)};
  });
}

Result<AccountServiceClient::DemoMode> AccountServiceClient::retailStoreDemoMode() {
  return ask(*_connection, [](ServiceSession& service) {
    auto [demoMode, name, password, autoLogin] = service.retailStoreDemoMode();
    return DemoMode{demoMode, firstOf(std::move(name)), firstOf(std::move(password)), autoLogin};
  });
}

Result<std::optional<std::string>> AccountServiceClient::nimboDSID() {
  return ask(*_connection, [](ServiceSession& service) { return firstOf(service.nimboDSID()); });
}

Result<std::optional<std::string>> AccountServiceClient::recommendedVantorIDForAccountSignIn() {
  return ask(*_connection, [](ServiceSession& service) {
    return firstOf(service.recommendedVantorIDForAccountSignIn());
  });
}

std::optional<Error> AccountServiceClient::observeAccounts(AccountObserver observer) {
  return attempt([&] { _connection->observeAccounts(std::move(observer)); });
}

}  // namespace tallow
