#include "client/AccountServiceClient.h"

#include <mutex>
#include <utility>

#include "bus/com.vantor.HSAccountService_proxy.h"
#include "bus/com.vantor.HSServiceRemoteObject_proxy.h"
#include "bus/com.vantor.HSURLBagObserver_adaptor.h"
#include "bus/com.vantor.tallowd.Status_proxy.h"
#include "platform/XPC/SDBus.h"
#include "platform/XPC/WireTypes.h"

namespace tallow {

namespace {

constexpr const char* kPath = "/com/vantor/tallowd";
constexpr const char* kObserverPath = "/com/vantor/tallowd/client/bag";

AccountServiceClient::ErrorCode codeForErrorName(const std::string& name) {
  using Client = AccountServiceClient;
  if (name == "org.freedesktop.DBus.Error.AccessDenied") return Client::kRefused;
  if (name == "org.freedesktop.DBus.Error.InvalidArgs") return Client::kInvalidArgument;
  for (const char* unreachable :
       {"org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NoReply",
        "org.freedesktop.DBus.Error.Timeout", "org.freedesktop.DBus.Error.Disconnected",
        "org.freedesktop.DBus.Error.NoServer", "org.freedesktop.DBus.Error.FileNotFound",
        "org.freedesktop.DBus.Error.NameHasNoOwner", "System.Error.ETIMEDOUT",
        "System.Error.ECONNREFUSED", "System.Error.ENOENT", "System.Error.ENOTCONN",
        "System.Error.ECONNRESET", "System.Error.ENOMEDIUM"}) {
    if (name == unreachable) return Client::kUnreachable;
  }
  return name.starts_with("org.freedesktop.DBus.Error.Spawn") ? Client::kUnreachable
                                                              : Client::kFailed;
}

Error clientError(const sdbus::Error& error) {
  const std::string name = bus::errorName(error);
  Error made =
      makeError(AccountServiceClient::kErrorDomain, codeForErrorName(name), error.getMessage());
  made.userInfo = made.userInfo.setting(AccountServiceClient::kErrorNameKey, name);
  return made;
}

// Calls that answer with something, and calls that answer with nothing; exceptions end here.
template <class Call>
auto answer(Call call) -> Result<decltype(call())> {
  try {
    return call();
  } catch (const sdbus::Error& error) {
    return clientError(error);
  }
}
template <class Call>
std::optional<Error> done(Call call) {
  try {
    call();
    return std::nullopt;
  } catch (const sdbus::Error& error) {
    return clientError(error);
  }
}

std::optional<Error> firstError(std::vector<WireError>& errors) {
  return errors.empty() ? std::nullopt : std::optional(std::move(errors.front().value));
}

class ServiceProxy final : public sdbus::ProxyInterfaces<com::vantor::HSAccountService_proxy,
                                                         com::vantor::HSServiceRemoteObject_proxy,
                                                         com::vantor::tallowd::Status_proxy> {
 public:
  ServiceProxy(sdbus::IConnection& connection, const std::string& service)
      : ProxyInterfaces(connection, service, kPath) {
    registerProxy();
  }
  ~ServiceProxy() { unregisterProxy(); }
};

class ObserverObject final
    : public sdbus::AdaptorInterfaces<com::vantor::HSURLBagObserver_adaptor> {
 public:
  ObserverObject(sdbus::IConnection& connection, AccountServiceClient::BagObserver observer)
      : AdaptorInterfaces(connection, kObserverPath), _observer(std::move(observer)) {
    registerAdaptor();
  }
  ~ObserverObject() { unregisterAdaptor(); }

 private:
  void urlBagDidUpdateWithSuccess(const bool& success,
                                  const std::vector<WireError>& error) override {
    _observer(success, error.empty() ? std::nullopt : std::optional(error.front().value));
  }

  const AccountServiceClient::BagObserver _observer;
};

}  // namespace

class AccountServiceClient::Connection {
 public:
  Connection(std::unique_ptr<sdbus::IConnection> connection, const char* service)
      : _bus(std::move(connection)), _proxy(*_bus, service) {
    _bus->enterEventLoopAsync();
  }
  ~Connection() { _bus->leaveEventLoop(); }

  ServiceProxy& service() { return _proxy; }

  std::optional<Error> observe(BagObserver observer) {
    const std::lock_guard lock(_observerLock);
    return done([&] {
      if (_observer) _proxy.removeURLBagObserver(sdbus::ObjectPath{kObserverPath});
      _observer.reset();
      if (!observer) return;
      _observer = std::make_unique<ObserverObject>(*_bus, std::move(observer));
      _proxy.addURLBagObserver(sdbus::ObjectPath{kObserverPath});
    });
  }

 private:
  std::unique_ptr<sdbus::IConnection> _bus;
  ServiceProxy _proxy;
  std::mutex _observerLock;
  std::unique_ptr<ObserverObject> _observer;
};

Result<std::unique_ptr<AccountServiceClient>> AccountServiceClient::connect(Instance instance) {
  return answer([&] {
    auto bus = instance == Instance::Daemon ? sdbus::createSystemBusConnection()
                                            : sdbus::createSessionBusConnection();
    const char* service =
        instance == Instance::Daemon ? "com.vantor.tallowd.daemon" : "com.vantor.tallowd";
    return std::unique_ptr<AccountServiceClient>(
        new AccountServiceClient(std::make_unique<Connection>(std::move(bus), service)));
  });
}

AccountServiceClient::AccountServiceClient(std::unique_ptr<Connection> connection)
    : _connection(std::move(connection)) {}

AccountServiceClient::~AccountServiceClient() = default;

std::optional<Error> AccountServiceClient::actAs(const std::string& identifier) {
  return done([&] { _connection->service().actAs(identifier); });
}

Result<Value> AccountServiceClient::valueForURLBagKey(const std::string& key) {
  return answer([&] {
    auto values = _connection->service().valueForURLBagKey(key);
    return values.empty() ? Value() : std::move(values.front().value);
  });
}

Result<bool> AccountServiceClient::urlIsTrustedByURLBag(const std::string& url) {
  return answer([&] { return _connection->service().urlIsTrustedByURLBag(url); });
}

Result<bool> AccountServiceClient::needsSilentOrvActionForURL(const std::string& url) {
  return answer([&] { return _connection->service().needsSilentOrvActionForURL(url); });
}

Result<AccountServiceClient::BagLoad> AccountServiceClient::loadURLBagWithType(
    std::uint64_t bagType) {
  return answer([&] {
    auto [valid, success, error] = _connection->service().loadURLBagWithType(bagType);
    return BagLoad{valid, success, firstError(error)};
  });
}

std::optional<Error> AccountServiceClient::invalidateAllBags() {
  return done([&] { _connection->service().invalidateAllBags(); });
}

Result<bool> AccountServiceClient::regexWithKey(const std::string& key,
                                                const std::string& matchesString) {
  return answer([&] { return _connection->service().regexWithKey(key, matchesString); });
}

Result<bool> AccountServiceClient::isValid() {
  return answer([&] { return _connection->service().isValid(); });
}

Result<std::optional<Dictionary>> AccountServiceClient::dictionary() {
  return answer([&] {
    auto dictionaries = _connection->service().dictionary();
    return dictionaries.empty() ? std::optional<Dictionary>()
                                : std::optional(std::move(dictionaries.front().value));
  });
}

Result<bool> AccountServiceClient::shouldSendGUIDWithRequestForURL(const std::string& url) {
  return answer([&] { return _connection->service().shouldSendGUIDWithRequestForURL(url); });
}

std::optional<Error> AccountServiceClient::observeURLBag(BagObserver observer) {
  return _connection->observe(std::move(observer));
}

std::optional<Error> AccountServiceClient::consumeCookiesWithHTTPHeaders(
    const Dictionary& headers, const std::string& fromURL) {
  return done([&] {
    WireDictionary wireHeaders;
    wireHeaders.value = headers;
    _connection->service().consumeCookiesWithHTTPHeaders(wireHeaders, fromURL);
  });
}

Result<Dictionary> AccountServiceClient::httpHeadersForURL(const std::string& url,
                                                           std::optional<std::uint64_t> forDSID,
                                                           bool includeOrvHeaders) {
  return answer([&] {
    std::vector<std::uint64_t> dsID;
    if (forDSID) dsID.push_back(*forDSID);
    return _connection->service().httpHeadersForURL(url, dsID, includeOrvHeaders).value;
  });
}

std::optional<Error> AccountServiceClient::deleteAllCookies() {
  return done([&] { _connection->service().deleteAllCookies(); });
}

Result<std::optional<std::string>> AccountServiceClient::storeFront() {
  return answer([&] {
    auto identifiers = _connection->service().storeFront();
    return identifiers.empty() ? std::optional<std::string>()
                               : std::optional(std::move(identifiers.front()));
  });
}

std::optional<Error> AccountServiceClient::setStoreFrontID(
    const std::optional<std::string>& storeFrontID) {
  return done([&] { _connection->service().setStoreFrontID(wire::optionalString(storeFrontID)); });
}

Result<std::string> AccountServiceClient::describe() {
  return answer([&] { return _connection->service().Describe(); });
}

}  // namespace tallow
