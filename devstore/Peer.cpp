#include "devstore/Peer.h"

#include <signal.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "bus/com.vantor.HSDownloadService_adaptor.h"
#include "bus/com.vantor.PRRequestQueue_adaptor.h"
#include "bus/com.vantor.PushServiceProtocol_adaptor.h"
#include "platform/HTTP/HTTPTransport.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::devstore {

namespace {

constexpr const char* kErrorDomain = "Peer";
// A store that holds an answer up plays a peer that never answers.
constexpr double kPatienceSeconds = 3600;

// The way to the store's page of one peer.
class Store {
 public:
  Store(std::string base, std::string name)
      : _base(std::move(base) + "/peers/" + std::move(name)) {}

  using Answered =
      std::function<void(const std::optional<std::string>& failure, const Dictionary& answer)>;
  void ask(const char* method, const Dictionary& arguments, Answered answered) const {
    const std::optional<URL> url = URL::parse(_base + "/" + method);
    if (!url) return answered("the store has no address", {});
    HTTPRequest request(*url);
    request.method = "POST";
    request.body = PropertyList::encode(arguments, PropertyList::Format::XML);
    request.totalTimeoutSeconds = kPatienceSeconds;
    HTTPTransport::shared().start(
        std::move(request), [answered = std::move(answered)](const Result<HTTPResponse>& response) {
          if (!response) return answered(response.error().localizedDescription(), {});
          if (response->statusCode != 200) return answered("the store has staged a failure", {});
          const Result<Value> list = PropertyList::decode(response->body);
          const Dictionary* const entries = list ? list->dictionary() : nullptr;
          answered(std::nullopt, entries == nullptr ? Dictionary() : *entries);
        });
  }

 private:
  const std::string _base;
};

template <class... Results>
void refuse(const sdbus::Result<Results...>& result, const std::string& why) {
  result.returnError(bus::makeError("com.vantor.Error.Failed", why));
}

template <class... Results>
std::shared_ptr<sdbus::Result<Results...>> kept(sdbus::Result<Results...>&& result) {
  return std::make_shared<sdbus::Result<Results...>>(std::move(result));
}

// What answers nothing, and what answers whether it went well.
Store::Answered done(sdbus::Result<>&& result) {
  return [result = kept(std::move(result))](const std::optional<std::string>& failure,
                                            const Dictionary&) {
    if (failure) return refuse(*result, *failure);
    result->returnResults();
  };
}
Store::Answered success(sdbus::Result<bool>&& result) {
  return [result = kept(std::move(result))](const std::optional<std::string>& failure,
                                            const Dictionary& answer) {
    if (failure) return refuse(*result, *failure);
    result->returnResults(answer["success"].boolValue().value_or(false));
  };
}

class PushAgent final : public sdbus::AdaptorInterfaces<com::vantor::PushServiceProtocol_adaptor> {
 public:
  static constexpr const char* kName = "com.vantor.quillonpushagent-xpc";

  PushAgent(sdbus::IConnection& connection, const Store& store)
      : AdaptorInterfaces(connection, sdbus::ObjectPath{"/com/vantor/quillonpushagent"}),
        _store(store) {
    registerAdaptor();
  }
  ~PushAgent() { unregisterAdaptor(); }
  PushAgent(const PushAgent&) = delete;
  PushAgent& operator=(const PushAgent&) = delete;

 private:
  using Tokens = std::vector<std::vector<std::uint8_t>>;

  void getDeviceTokenForEnvironmentNamed(sdbus::Result<bool, Tokens>&& result,
                                         std::vector<std::string> environmentName) override {
    Dictionary arguments;
    if (!environmentName.empty())
      arguments = arguments.setting("environmentName", environmentName.front());
    _store.ask("getDeviceTokenForEnvironmentNamed", arguments,
               [result = kept(std::move(result))](const std::optional<std::string>& failure,
                                                  const Dictionary& answer) {
                 if (failure) return refuse(*result, *failure);
                 Tokens tokens;
                 if (const Data* const token = answer["token"].data())
                   tokens.emplace_back(token->span().begin(), token->span().end());
                 result->returnResults(answer["success"].boolValue().value_or(false), tokens);
               });
  }
  void addTopic(sdbus::Result<bool>&& result, std::string topic, std::string forEnvironmentNamed,
                std::string fromClient) override {
    changeTopic("addTopic", std::move(result), topic, forEnvironmentNamed, fromClient);
  }
  void deleteTopic(sdbus::Result<bool>&& result, std::string topic, std::string forEnvironmentNamed,
                   std::string fromClient) override {
    changeTopic("deleteTopic", std::move(result), topic, forEnvironmentNamed, fromClient);
  }
  void changeTopic(const char* method, sdbus::Result<bool>&& result, const std::string& topic,
                   const std::string& environment, const std::string& client) const {
    _store.ask(
        method,
        Dictionary{{"topic", topic}, {"forEnvironmentNamed", environment}, {"fromClient", client}},
        success(std::move(result)));
  }

  const Store _store;
};

class DownloadService final
    : public sdbus::AdaptorInterfaces<com::vantor::HSDownloadService_adaptor> {
 public:
  static constexpr const char* kName = "com.vantor.downloadservice";

  DownloadService(sdbus::IConnection& connection, const Store& store)
      : AdaptorInterfaces(connection, sdbus::ObjectPath{"/com/vantor/downloadservice"}),
        _store(store) {
    registerAdaptor();
  }
  ~DownloadService() { unregisterAdaptor(); }
  DownloadService(const DownloadService&) = delete;
  DownloadService& operator=(const DownloadService&) = delete;

 private:
  void checkAutomaticDownloadQueue(sdbus::Result<>&& result, std::string client) override {
    _store.ask("checkAutomaticDownloadQueue", Dictionary{{"client", client}},
               done(std::move(result)));
  }
  const Store _store;
};

class PurchasePermission final
    : public sdbus::AdaptorInterfaces<com::vantor::PRRequestQueue_adaptor> {
 public:
  static constexpr const char* kName = "com.vantor.grantwell";

  PurchasePermission(sdbus::IConnection& connection, const Store& store)
      : AdaptorInterfaces(connection, sdbus::ObjectPath{"/com/vantor/grantwell"}), _store(store) {
    registerAdaptor();
  }
  ~PurchasePermission() { unregisterAdaptor(); }
  PurchasePermission(const PurchasePermission&) = delete;
  PurchasePermission& operator=(const PurchasePermission&) = delete;

 private:
  void _didReceiveStorePushNotificationWithPayload(sdbus::Result<>&& result, std::string queue,
                                                   WireDictionary payload) override {
    _store.ask("didReceiveStorePushNotificationWithPayload",
               Dictionary{{"queue", queue}, {"payload", std::move(payload.value)}},
               done(std::move(result)));
  }
  const Store _store;
};

struct Kind {
  const char* name;  // on the command line, and at the store
  const char* busName;
  std::function<std::shared_ptr<void>(sdbus::IConnection&, const Store&)> make;
};

template <class Object>
Kind kindOf(const char* name) {
  return {name, Object::kName, [](sdbus::IConnection& connection, const Store& store) {
            return std::static_pointer_cast<void>(std::make_shared<Object>(connection, store));
          }};
}

const std::vector<Kind>& kinds() {
  static const std::vector<Kind>& kinds =
      *new std::vector<Kind>{kindOf<PushAgent>("push-agent"), kindOf<DownloadService>("downloads"),
                             kindOf<PurchasePermission>("purchase-permission")};
  return kinds;
}

}  // namespace

struct Peer::State {
  std::shared_ptr<BusConnection> connection;
};

std::vector<std::string> Peer::names() {
  std::vector<std::string> names;
  for (const Kind& kind : kinds()) names.emplace_back(kind.name);
  return names;
}

Result<std::unique_ptr<Peer>> Peer::start(std::string_view name, const URL& store,
                                          BusConnection::Bus bus) {
  for (const Kind& kind : kinds()) {
    if (kind.name != name) continue;
    const auto connection = BusConnection::open(bus);
    if (!connection) return connection.error();
    std::string base = store.absoluteString();
    while (base.ends_with('/')) base.pop_back();
    try {
      auto object = kind.make((*connection)->connection(), Store(base, kind.name));
      (*connection)->keepUntilClosed(std::move(object));
      bus::requestName((*connection)->connection(), kind.busName);
    } catch (const sdbus::Error& error) {
      return makeError(kErrorDomain, 0,
                       std::string(kind.busName) + ": " + std::string(error.getMessage()));
    }
    // Without its bus nobody can ask it anything any more.
    (*connection)->start([] { kill(getpid(), SIGTERM); });
    auto state = std::make_unique<State>();
    state->connection = *connection;
    return std::unique_ptr<Peer>(new Peer(std::move(state)));
  }
  return makeError(kErrorDomain, 0, std::string(name) + ": no such peer");
}

Peer::Peer(std::unique_ptr<State> state) : _state(std::move(state)) {}
Peer::~Peer() = default;

}  // namespace tallow::devstore
