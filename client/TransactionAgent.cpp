#include "client/TransactionAgent.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <string_view>
#include <utility>

#include "bus/com.vantor.HSTransactionService_adaptor.h"
#include "client/BusReader.h"
#include "client/ClientCalls.h"
#include "client/StoreSignIn.h"
#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSError.h"
#include "platform/XPC/BusDaemon.h"
#include "platform/XPC/SDBus.h"

namespace tallow {

namespace {

constexpr const char* kName = "com.vantor.transactionservice";
constexpr const char* kPath = "/com/vantor/transactionservice";
constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kServiceUnknown = "org.freedesktop.DBus.Error.ServiceUnknown";
// What the bus library makes of the bus's answer that the name has an owner.
constexpr std::string_view kTakenErrors[] = {"org.freedesktop.DBus.Error.FileExists",
                                             "System.Error.EEXIST"};

using Answer = sdbus::Result<bool, std::vector<std::uint64_t>, std::vector<WireError>>;

}  // namespace

class TransactionAgent::Object final
    : public sdbus::AdaptorInterfaces<com::vantor::HSTransactionService_adaptor> {
 public:
  Object(sdbus::IConnection& connection, AccountServiceClient::Instance instance, Ask ask)
      : AdaptorInterfaces(connection, sdbus::ObjectPath{kPath}),
        _busDaemon(connection),
        _instance(instance),
        _service(instance),
        _ask(std::move(ask)) {
    registerAdaptor();
  }
  ~Object() {
    _queue.sync([] {});
    unregisterAdaptor();
  }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  // Returns when nobody is asked any more; whoever comes later is refused.
  void end() {
    _isEnding = true;
    _queue.sync([] {});
  }

  // The service has to see who calls, which it cannot any more when the program has asked for a
  // password and hidden its memory. Where that fails, the sign-in says why.
  void introduce() {
    if (_ownerOfService()) static_cast<void>(_service.describe());
  }

 private:
  void dsidByAuthenticatingWithContext(Answer&& result, std::string client,
                                       WireDictionary context) override {
    const auto answer = std::make_shared<Answer>(std::move(result));
    if (++_waiting > kMaxWaiting + 1) {
      --_waiting;
      answer->returnError(bus::makeError(bus::kLimitsExceeded, "too many sign-ins wait"));
      return;
    }
    const std::string sender = sd_bus_message_get_sender(bus::currentMessage(getObject()));
    _queue.async([this, answer, sender, client = std::move(client),
                  context = HSAuthenticationContext::initWithDictionary(context.value)] {
      try {
        if (_isEnding) {
          answer->returnError(bus::makeError(kServiceUnknown, "The sign-in service is leaving."));
        } else if (_ownerOfService() == sender) {
          _signIn(*answer, client, context);
        } else {
          answer->returnError(
              bus::makeError(kAccessDenied, "Only the account service asks for sign-ins."));
        }
      } catch (const sdbus::Error&) {
        // The bus has gone, and whoever asked with it.
      }
      --_waiting;
    });
  }

  // Nothing when it does not run.
  std::optional<std::string> _ownerOfService() {
    const char* service = _instance == AccountServiceClient::Instance::Daemon
                              ? "com.vantor.tallowd.daemon"
                              : "com.vantor.tallowd";
    try {
      return _busDaemon.ownerOf(service);
    } catch (const sdbus::Error&) {
      return std::nullopt;
    }
  }

  void _signIn(const Answer& answer, const std::string& client,
               const HSAuthenticationContext& context) {
    const Result<std::optional<std::uint64_t>> dsID = _dsIDForClient(client, context);
    const std::optional<Error> error = dsID ? std::nullopt : std::optional(dsID.error());
    const bool success = dsID && dsID->has_value();
    answer.returnResults(
        success, success ? std::vector<std::uint64_t>{**dsID} : std::vector<std::uint64_t>{},
        wire::optionalError(error));
  }

  // Nil when the person does not want to.
  Result<std::optional<std::uint64_t>> _dsIDForClient(const std::string& client,
                                                      const HSAuthenticationContext& context) {
    if (auto error = _service.actAs(client)) return *error;
    StoreSignIn signIn(_service, client, context);
    std::optional<Error> refusal;
    for (int attempt = 1;; ++attempt) {
      const std::optional<Credentials> credentials = _ask(
          client, context, refusal ? std::optional(refusal->localizedDescription()) : std::nullopt);
      // Whoever gives up after a refusal has not been let in; whoever gives up before did not want.
      if (!credentials && refusal) return *refusal;
      if (!credentials) return std::optional<std::uint64_t>();
      const Result<std::uint64_t> dsID = signIn.signInWithCredentials(*credentials);
      if (dsID) return std::optional(*dsID);
      const bool mayHelpToAskAgain =
          dsID.error().domain == kHSErrorDomain && dsID.error().code == kHSErrorSignInRefused;
      if (!mayHelpToAskAgain || attempt == kMaxAttempts) return dsID.error();
      refusal = dsID.error();
    }
  }

  const bus::BusDaemon _busDaemon;
  const AccountServiceClient::Instance _instance;
  AccountServiceClient _service;  // one connection: the service knows it from before any question
  const Ask _ask;
  std::atomic<std::size_t> _waiting{0};
  std::atomic<bool> _isEnding{false};
  SerialQueue _queue{"Transaction Agent Queue"};
};

struct TransactionAgent::Export {
  Export(AccountServiceClient::Instance instance, Ask ask, std::function<void()> busHasGone)
      : connection(instance == AccountServiceClient::Instance::Daemon
                       ? sdbus::createSystemBusConnection()
                       : sdbus::createSessionBusConnection()),
        object(std::make_unique<Object>(*connection, instance, std::move(ask))) {
    bus::requestName(*connection, kName);
    object->introduce();
    reader.emplace(*connection, std::move(busHasGone));
  }
  // What is going on ends, while the bus is still read: it may wait for an answer.
  ~Export() {
    object->end();
    reader.reset();
  }
  Export(const Export&) = delete;
  Export& operator=(const Export&) = delete;

  const std::unique_ptr<sdbus::IConnection> connection;
  const std::unique_ptr<Object> object;
  std::optional<BusReader> reader;
};

TransactionAgent::TransactionAgent(std::unique_ptr<Export> exported)
    : _export(std::move(exported)) {}

TransactionAgent::~TransactionAgent() = default;

Result<std::unique_ptr<TransactionAgent>> TransactionAgent::start(
    AccountServiceClient::Instance instance, Ask ask, std::function<void()> busHasGone) {
  try {
    return std::unique_ptr<TransactionAgent>(new TransactionAgent(
        std::make_unique<Export>(instance, std::move(ask), std::move(busHasGone))));
  } catch (const sdbus::Error& error) {
    const std::string name = bus::errorName(error);
    const bool isTaken = std::ranges::find(kTakenErrors, name) != std::end(kTakenErrors);
    if (!isTaken) return clientErrorFrom(error);
    return makeError(AccountServiceClient::kErrorDomain, AccountServiceClient::kTaken,
                     "Another program asks people to sign in already.");
  }
}

}  // namespace tallow
