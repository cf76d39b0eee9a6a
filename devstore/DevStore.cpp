#include "devstore/DevStore.h"

#include <utility>

#include "devstore/AuthenticateEndpoint.h"
#include "devstore/BagEndpoint.h"
#include "devstore/Control.h"
#include "devstore/EligibilityEndpoint.h"
#include "devstore/EndpointTable.h"
#include "devstore/HTTPListener.h"
#include "devstore/Holdup.h"
#include "devstore/IdentityExchangeEndpoint.h"
#include "devstore/IdentityVerdictEndpoint.h"
#include "devstore/LogoutEndpoint.h"
#include "devstore/MachineRegistry.h"
#include "devstore/PageEndpoint.h"
#include "devstore/PasswordSettingsEndpoint.h"
#include "devstore/PeerEndpoint.h"
#include "devstore/PingEndpoint.h"
#include "devstore/PushEndpoint.h"
#include "devstore/RedirectEndpoint.h"
#include "devstore/RequestLog.h"
#include "devstore/SigningAuthority.h"
#include "devstore/Staging.h"
#include "devstore/StateDirectory.h"
#include "devstore/TLSAuthority.h"

namespace tallow::devstore {

namespace {

constexpr const char* kErrorDomain = "DevStore";
constexpr const char* kAnchorFile = "anchors/root.pem";
constexpr const char* kTLSAuthorityFile = "tls-ca.pem";

bool isLoopback(const std::string& address) {
  return address == "127.0.0.1" || address == "::1";
}

StoreURLs storeURLs(const std::string& address, std::uint16_t http, std::uint16_t https) {
  const std::string host = address == "::1" ? "[::1]" : address;
  return {"http://" + host + ":" + std::to_string(http),
          "https://localhost:" + std::to_string(https)};
}

}  // namespace

// The members stand in the order in which they need each other: the listeners, last, are stopped
// first.
struct DevStore::State {
  explicit State(Options storeOptions) : options(std::move(storeOptions)) {}

  std::optional<Error> prepare();
  void addEndpoints();
  void addPushEndpoints();
  Answer answer(const ReceivedRequest& request);
  Answer answerFromEndpoint(const ReceivedRequest& request);

  const Options options;
  std::unique_ptr<StateDirectory> directory;
  std::unique_ptr<SigningAuthority> signingAuthority;
  StoreURLs urls;
  Holdup holdup;
  RequestLog requests;
  MachineRegistry machines;
  EndpointTable endpoints;
  Staging staging{endpoints, [this] { holdup.release(); }};
  Control control{staging, requests};
  std::unique_ptr<HTTPListener> http, https;
};

std::optional<Error> DevStore::State::prepare() {
  if (!isLoopback(options.listenAddress)) {
    return makeError(kErrorDomain, 0,
                     options.listenAddress +
                         ": this store is for one machine; it listens on 127.0.0.1 or ::1 only");
  }
  Result<std::unique_ptr<StateDirectory>> opened = StateDirectory::open(options.stateDirectory);
  if (!opened) return opened.error();
  directory = std::move(*opened);
  if (options.fresh) {
    if (std::optional<Error> error = directory->forgetIdentities()) return error;
  }
  Result<std::unique_ptr<SigningAuthority>> signing = SigningAuthority::open(*directory);
  if (!signing) return signing.error();
  signingAuthority = std::move(*signing);
  const Result<TLSAuthority> tls = TLSAuthority::open(*directory);
  if (!tls) return tls.error();
  if (auto error = directory->writeFile(kAnchorFile, signingAuthority->rootPEM())) return error;
  if (auto error = directory->writeFile(kTLSAuthorityFile, tls->authorityPEM())) return error;

  Result<std::unique_ptr<HTTPListener>> plain =
      HTTPListener::bind(options.listenAddress, options.httpPort, nullptr, holdup);
  if (!plain) return plain.error();
  http = std::move(*plain);
  Result<std::unique_ptr<HTTPListener>> secure =
      HTTPListener::bind(options.listenAddress, options.httpsPort, &tls->server(), holdup);
  if (!secure) return secure.error();
  https = std::move(*secure);
  urls = storeURLs(options.listenAddress, http->port(), https->port());
  return std::nullopt;
}

void DevStore::State::addEndpoints() {
  endpoints.add("bag", {"/bag"},
                std::make_unique<BagEndpoint>(BagEnvironment::Production, *signingAuthority, urls));
  endpoints.add("sandboxBag", {"/sandbox/bag"},
                std::make_unique<BagEndpoint>(BagEnvironment::Sandbox, *signingAuthority, urls));
  endpoints.add("ping", {"/ping"}, std::make_unique<PingEndpoint>());
  endpoints.add("page", {"/store/"}, std::make_unique<PageEndpoint>());
  endpoints.add("redirect", {"/redirect", "/redirect/loop", "/redirect/chain"},
                std::make_unique<RedirectEndpoint>());
  endpoints.add("authenticate", {"/accounts/authenticate"},
                std::make_unique<AuthenticateEndpoint>());
  endpoints.add("logout", {"/accounts/logout"}, std::make_unique<LogoutEndpoint>());
  endpoints.add("eligibility", {"/accounts/subscription-status"},
                std::make_unique<EligibilityEndpoint>());
  using Exchange = IdentityExchangeEndpoint::Exchange;
  endpoints.add("finishProvisioning",
                {"/identity/finish-provisioning", "/identity/anonymous/finish-provisioning"},
                std::make_unique<IdentityExchangeEndpoint>(Exchange::Provisioning, machines));
  endpoints.add("syncMachine", {"/identity/sync-machine", "/identity/anonymous/sync-machine"},
                std::make_unique<IdentityExchangeEndpoint>(Exchange::Synchronisation, machines));
  endpoints.add("identity", {"/identity/verdict"},
                std::make_unique<IdentityVerdictEndpoint>(machines));
  const auto passwordSettings = std::make_shared<PasswordSettings>();
  endpoints.add("passwordSettings", {"/accounts/password-settings"},
                std::make_unique<GetPasswordSettingsEndpoint>(passwordSettings));
  endpoints.add("updatePasswordSettings", {"/accounts/password-settings/update"},
                std::make_unique<UpdatePasswordSettingsEndpoint>(passwordSettings));
  addPushEndpoints();
}

void DevStore::State::addPushEndpoints() {
  const auto devices = std::make_shared<PushDevices>();
  const auto add = [&](const char* name, const char* path, PushEndpoint::Page page) {
    endpoints.add(name, {path}, std::make_unique<PushEndpoint>(page, devices));
  };
  add("registerSuccess", "/push/register-success", PushEndpoint::Page::RegisterSuccess);
  add("registerMediaTypes", "/push/register-media-types", PushEndpoint::Page::RegisterMediaTypes);
  add("enabledMediaTypes", "/push/enabled-media-types", PushEndpoint::Page::EnabledMediaTypes);
  endpoints.add("pushAgent", {"/peers/push-agent/"}, std::make_unique<PeerEndpoint>());
  endpoints.add("downloads", {"/peers/downloads/"}, std::make_unique<PeerEndpoint>());
  endpoints.add("purchasePermission", {"/peers/purchase-permission/"},
                std::make_unique<PeerEndpoint>());
}

Answer DevStore::State::answer(const ReceivedRequest& request) {
  Answer answer =
      Control::isForPath(request.path) ? control.answer(request) : answerFromEndpoint(request);
  if (options.whenAnswered) options.whenAnswered(request, answer.status);
  return answer;
}

Answer DevStore::State::answerFromEndpoint(const ReceivedRequest& request) {
  requests.add(request);
  const EndpointTable::Entry* entry = endpoints.forPath(request.path);
  if (entry == nullptr) return Answer::text(404, "the store has no such page\n");
  const Holdup::Ticket ticket = holdup.ticket();
  const std::shared_ptr<const Staging::StagedAnswer> staged = staging.next(entry->name);
  if (staged == nullptr) {
    return entry->endpoint->answer(request, nullptr, PropertyList::Format::XML);
  }
  Answer answer = staged->settings.appliedTo(
      entry->endpoint->answer(request, staged->own.get(), staged->settings.format()));
  if (const auto& order = staged->settings.identityOrder()) machines.order(*order, answer);
  answer.ticket = ticket;
  return answer;
}

Result<std::unique_ptr<DevStore>> DevStore::start(Options options) {
  auto state = std::make_unique<State>(std::move(options));
  if (std::optional<Error> error = state->prepare()) return *error;
  state->addEndpoints();
  const auto handler = [state = state.get()](const ReceivedRequest& request) {
    return state->answer(request);
  };
  state->http->start(handler);
  state->https->start(handler);
  return std::unique_ptr<DevStore>(new DevStore(std::move(state)));
}

DevStore::DevStore(std::unique_ptr<State> state) : _state(std::move(state)) {}

DevStore::~DevStore() {
  _state->requests.stop();
  _state->holdup.stop();
}

const StoreURLs& DevStore::urls() const {
  return _state->urls;
}

std::filesystem::path DevStore::tlsAuthorityFile() const {
  return _state->options.stateDirectory / kTLSAuthorityFile;
}

std::filesystem::path DevStore::anchorFile() const {
  return _state->options.stateDirectory / kAnchorFile;
}

std::optional<Error> DevStore::stage(std::string_view jsonText) {
  std::optional<std::string> complaint = _state->staging.apply(jsonText);
  if (!complaint) return std::nullopt;
  return makeError(kErrorDomain, 0, std::move(*complaint));
}

std::vector<ReceivedRequest> DevStore::requests(std::string_view path) const {
  return _state->requests.requests(path);
}

bool DevStore::waitForRequests(std::string_view path, std::size_t count,
                               std::chrono::milliseconds timeout) const {
  return _state->requests.wait(path, count, timeout);
}

void DevStore::forgetRequests() {
  _state->requests.clear();
}

}  // namespace tallow::devstore
