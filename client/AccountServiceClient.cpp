#include "client/AccountServiceClient.h"

#include <utility>

#include "client/ClientCalls.h"

namespace tallow {

namespace {

bool saysThereIsNoBus(const std::string& name) {
  return name == "org.freedesktop.DBus.Error.NoServer" ||
         name == "org.freedesktop.DBus.Error.FileNotFound" || name == "System.Error.ECONNREFUSED" ||
         name == "System.Error.ENOENT" || name == "System.Error.ENOMEDIUM";
}

AccountServiceClient::ErrorCode codeForErrorName(const std::string& name) {
  using Client = AccountServiceClient;
  if (name == "org.freedesktop.DBus.Error.AccessDenied") return Client::kRefused;
  if (name == "org.freedesktop.DBus.Error.InvalidArgs") return Client::kInvalidArgument;
  return bus::saysNobodyAnswers(name) || saysThereIsNoBus(name) ? Client::kUnreachable
                                                                : Client::kFailed;
}

}  // namespace

Error clientErrorFrom(const sdbus::Error& error) {
  const std::string name = bus::errorName(error);
  Error made =
      makeError(AccountServiceClient::kErrorDomain, codeForErrorName(name), error.getMessage());
  made.userInfo = made.userInfo.setting(AccountServiceClient::kErrorNameKey, name);
  return made;
}

AccountServiceClient::AccountServiceClient(Instance instance)
    : _connection(std::make_unique<ServiceConnection>(instance)) {}

AccountServiceClient::~AccountServiceClient() = default;

std::optional<Error> AccountServiceClient::actAs(const std::string& identifier) {
  return attempt([&] { _connection->actAs(identifier); });
}

Result<Value> AccountServiceClient::valueForURLBagKey(const std::string& key) {
  return ask(*_connection, [&](ServiceSession& service) {
    auto values = service.valueForURLBagKey(key);
    return values.empty() ? Value() : std::move(values.front().value);
  });
}

Result<bool> AccountServiceClient::urlIsTrustedByURLBag(const std::string& url) {
  return ask(*_connection,
             [&](ServiceSession& service) { return service.urlIsTrustedByURLBag(url); });
}

Result<bool> AccountServiceClient::needsSilentOrvActionForURL(const std::string& url) {
  return ask(*_connection,
             [&](ServiceSession& service) { return service.needsSilentOrvActionForURL(url); });
}

Result<AccountServiceClient::BagLoad> AccountServiceClient::loadURLBagWithType(
    std::uint64_t bagType) {
  return ask(*_connection, [&](ServiceSession& service) {
    auto [valid, success, error] = service.loadURLBagWithType(bagType);
    return BagLoad{valid, success, firstOf(error)};
  });
}

std::optional<Error> AccountServiceClient::invalidateAllBags() {
  return tell(*_connection, [&](ServiceSession& service) { service.invalidateAllBags(); });
}

Result<bool> AccountServiceClient::regexWithKey(const std::string& key,
                                                const std::string& matchesString) {
  return ask(*_connection,
             [&](ServiceSession& service) { return service.regexWithKey(key, matchesString); });
}

Result<bool> AccountServiceClient::isValid() {
  return ask(*_connection, [&](ServiceSession& service) { return service.isValid(); });
}

Result<std::optional<Dictionary>> AccountServiceClient::dictionary() {
  return ask(*_connection, [&](ServiceSession& service) { return firstOf(service.dictionary()); });
}

Result<bool> AccountServiceClient::shouldSendGUIDWithRequestForURL(const std::string& url) {
  return ask(*_connection,
             [&](ServiceSession& service) { return service.shouldSendGUIDWithRequestForURL(url); });
}

std::optional<Error> AccountServiceClient::observeURLBag(BagObserver observer) {
  return attempt([&] { _connection->observe(std::move(observer)); });
}

std::optional<Error> AccountServiceClient::consumeCookiesWithHTTPHeaders(
    const Dictionary& headers, const std::string& fromURL) {
  return tell(*_connection, [&](ServiceSession& service) {
    service.consumeCookiesWithHTTPHeaders(wire::dictionary(headers), fromURL);
  });
}

Result<Dictionary> AccountServiceClient::httpHeadersForURL(const std::string& url,
                                                           std::optional<std::uint64_t> forDSID,
                                                           bool includeOrvHeaders) {
  return ask(*_connection, [&](ServiceSession& service) {
    std::vector<std::uint64_t> dsID;
    if (forDSID) dsID.push_back(*forDSID);
    return service.httpHeadersForURL(url, dsID, includeOrvHeaders).value;
  });
}

std::optional<Error> AccountServiceClient::deleteAllCookies() {
  return tell(*_connection, [&](ServiceSession& service) { service.deleteAllCookies(); });
}

Result<std::optional<std::string>> AccountServiceClient::storeFront() {
  return ask(*_connection, [&](ServiceSession& service) { return firstOf(service.storeFront()); });
}

std::optional<Error> AccountServiceClient::setStoreFrontID(
    const std::optional<std::string>& storeFrontID) {
  return tell(*_connection, [&](ServiceSession& service) {
    service.setStoreFrontID(wire::optionalString(storeFrontID));
  });
}

Result<std::string> AccountServiceClient::describe() {
  return ask(*_connection, [&](ServiceSession& service) { return service.Describe(); });
}

Result<std::string> AccountServiceClient::uniqueName() {
  return ask(*_connection, [](ServiceSession& service) { return service.bus().uniqueName(); });
}

}  // namespace tallow
