#include "src/OrvController.h"

#include <utility>

#include "platform/Base/Base64.h"
#include "platform/MerrowKit/MKLogASLMessage.h"
#include "platform/Orv/OrvLibrary.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/AccountService/AccountStore.h"
#include "src/OrvExchange.h"
#include "src/OrvMachineSyncOperation.h"
#include "src/OrvProvisioningOperation.h"

namespace tallow {

namespace {

constexpr const char* kRestartProvisioningEvent = "com.vantor.Quillon.orv.restart_provisioning";
constexpr const char* kStartProvisioningEvent = "com.vantor.Quillon.orv.start_provisioning";
constexpr const char* kSynchronizeEvent = "com.vantor.Quillon.orv.synchronize";

void sendFailure(const char* event, std::int64_t code) {
  MKLogASLMessage(event, {{"result", "fail"}, {"error_code", code}});
}

// The DSID of whoever is signed in; never waits for a sign-in that is going on.
std::optional<std::uint64_t> primaryAccountDSID(
    const std::shared_ptr<const HSStoreClient>& storeClient) {
  const auto store = AccountStore::accountStoreForClient(storeClient);
  const AccountStore::Account account = store ? store->primaryAccount() : nullptr;
  return account ? account->dsID() : std::nullopt;
}

std::string nameOf(const std::shared_ptr<const HSStoreClient>& storeClient) {
  return storeClient ? storeClient->identifier.value_or("") : "";
}

std::optional<std::string> base64Text(const std::optional<std::span<const std::uint8_t>>& bytes) {
  return bytes ? std::optional(base64Encode(*bytes)) : std::nullopt;
}

std::optional<std::span<const std::uint8_t>> bytesOf(const OrvBuffer& buffer) {
  return buffer.isNil() ? std::nullopt : std::optional(buffer.span());
}

}  // namespace

// What a response orders, as its headers say it.
struct OrvController::Action {
  Value action, data;
  bool isAnonymous = false;

  // The anonymous pair counts only where neither header of the account's is there.
  static Action readFrom(const Dictionary& headers) {
    Action read{headers["x-vantor-md-action"], headers["x-vantor-md-data"], false};
    if (read.action.isNil() && read.data.isNil())
      read = {headers["x-vantor-amd-action"], headers["x-vantor-amd-data"], true};
    return read;
  }
  bool is(const char* name) const { return action.string() != nullptr && *action.string() == name; }
  bool isKnown() const { return is("RP") || is("SP") || is("SM"); }
  std::optional<Data> decodedData() const {
    return data.string() == nullptr ? std::nullopt : base64Decode(*data.string());
  }
};

OrvController& OrvController::sharedController() {
  static auto& controller = *new OrvController;
  return controller;
}

OrvController::OrvController() : _serialQueue("Orv Serial Processing Queue") {}

// Headers

Dictionary OrvController::httpRequestHeaders() {
  return *httpRequestHeadersForDSID(kAnonymousDSID);
}

std::optional<Dictionary> OrvController::httpRequestHeadersForDSID(
    std::optional<std::uint64_t> dsID) {
  return _serialQueue.sync([&] { return _httpRequestHeadersForDSID(dsID); });
}

std::optional<Dictionary> OrvController::httpRequestHeadersForDSIDIfIdle(
    std::optional<std::uint64_t> dsID) {
  if (!_isLibraryOpen || !dsID) return std::nullopt;
  std::optional<Dictionary> headers;
  _serialQueue.trySync([&] {
    if (OrvLibrary::shared().passwordIsAtHand(*dsID)) headers = _httpRequestHeadersForDSID(dsID);
  });
  return headers;
}

std::optional<Dictionary> OrvController::_httpRequestHeadersForDSID(
    std::optional<std::uint64_t> dsID) {
  if (!dsID) return std::nullopt;
  std::optional<std::string> identifier, password;
  _generateOTPOnCurrentThreadForDSID(*dsID, [&](bool, Bytes identifierBytes, Bytes passwordBytes) {
    identifier = base64Text(identifierBytes);
    password = base64Text(passwordBytes);
  });
  const bool isAnonymous = *dsID == kAnonymousDSID;
  std::optional<std::string> state;
  if (const std::optional<Data> held = syncState()) {
    state = base64Encode(*held);
    if (!state->empty() || held->empty()) {
      logLevel(1, "Orv: httpRequestHeaders sending X-Vantor-MD-S as syncState data is present");
    } else {
      logLevel(1, "Orv: httpRequestHeaders failed to encode syncState data into base64 string");
      state.reset();
    }
  }
  // A nil value leaves its header out.
  return Dictionary{{isAnonymous ? "X-Vantor-AMD-M" : "X-Vantor-MD-M", identifier},
                    {isAnonymous ? "X-Vantor-AMD" : "X-Vantor-MD", password},
                    {"X-Vantor-MD-S", state}};
}

void OrvController::_generateOTPOnCurrentThreadForDSID(std::uint64_t dsID,
                                                       const OTPHandler& withHandler) {
  const OrvLibrary& library = OrvLibrary::shared();
  _isLibraryOpen = true;
  OrvBuffer machineIdentifier, password;
  const std::int32_t status = library.requestPassword(dsID, machineIdentifier, password);
  if (status == kOrvSuccess) {
    logLevel(1, "Orv: Account is provisioned, using OTP and MD from Orv");
  } else if (status == kOrvNotProvisioned) {
    logLevel(1, "Orv: Account is not provisioned, omitting OTP and MD");
  } else {
    logLevel(1, "Orv: OTP Request failed with error %d", status);
  }
  if (!withHandler) return;
  const bool isAnswered = status == kOrvSuccess || status == kOrvNotProvisioned;
  withHandler(isAnswered, bytesOf(machineIdentifier), bytesOf(password));
}

// Actions

void OrvController::processHTTPHeaders(const Dictionary& headers,
                                       const std::shared_ptr<const HSStoreClient>& forStoreClient) {
  logLevel(3, "Orv: %@", headers);
  Action action = Action::readFrom(headers);
  if (!action.isKnown()) return;
  const std::string client = nameOf(forStoreClient);
  const std::optional<std::uint64_t> number = _numberOfNext(client);
  if (!number) {
    logLevel(1, "Orv: Dropping action %@: %d actions of %@ are waiting already", action.action,
             kMostWaitingActions, forStoreClient);
    return;
  }
  _serialQueue.async([this, action = std::move(action), forStoreClient, client, number] {
    if (_isDropped(client, *number) && !action.is("RP")) {
      logLevel(1, "Orv: Dropping action %@: the store does not answer", action.action);
    } else {
      _isExchanging = true;
      _process(action, forStoreClient);
      _isExchanging = false;
    }
    _isDone(client);
  });
}

void OrvController::_process(const Action& action,
                             const std::shared_ptr<const HSStoreClient>& storeClient) {
  const std::optional<std::uint64_t> dsID =
      action.isAnonymous ? std::optional(kAnonymousDSID) : primaryAccountDSID(storeClient);
  const std::optional<Data> data = action.decodedData();
  if (action.is("RP")) {
    _resetProvisioning(dsID);
  } else if (action.is("SP")) {
    _startProvisioning(data, dsID, storeClient);
  } else if (action.is("SM")) {
    _synchronizeMachine(data, dsID, storeClient);
  }
}

void OrvController::_resetProvisioning(std::optional<std::uint64_t> dsID) {
  const std::int32_t status = OrvLibrary::shared().resetProvisioning(dsID.value_or(0));
  if (status != kOrvSuccess) sendFailure(kRestartProvisioningEvent, status);
}

void OrvController::_startProvisioning(const std::optional<Data>& data,
                                       std::optional<std::uint64_t> dsID,
                                       const std::shared_ptr<const HSStoreClient>& storeClient) {
  logLevel(1, "%@: Starting provisioning", kClassName);
  const auto operation = std::make_shared<OrvProvisioningOperation>(data, dsID, storeClient);
  std::optional<Error> error;
  if (operation->runSyncReturningError(&error)) {
    logLevel(1, "%@: Provisioning completed successfully", kClassName);
    return;
  }
  logLevel(1, "%@: Provisioning failed with error %@", kClassName, error);
  sendFailure(kStartProvisioningEvent, error ? error->code : 0);
  _dropWaitingAfter(error, nameOf(storeClient));
}

void OrvController::_synchronizeMachine(const std::optional<Data>& data,
                                        std::optional<std::uint64_t> dsID,
                                        const std::shared_ptr<const HSStoreClient>& storeClient) {
  logLevel(1, "%@: Starting machine sync", kClassName);
  const auto operation = std::make_shared<OrvMachineSyncOperation>(data, dsID, storeClient);
  std::optional<Error> error;
  if (operation->runSyncReturningError(&error)) {
    logLevel(1, "%@: Machine sync completed successfully", kClassName);
  } else {
    logLevel(1, "%@: Machine sync failed with error %@", kClassName, error);
    sendFailure(kSynchronizeEvent, error ? error->code : 0);
    _dropWaitingAfter(error, nameOf(storeClient));
  }
  // The state that came, even with a failure, or none: also a failed one clears what was held.
  const std::optional<Data> returned = operation->syncState();
  const bool hadState = syncState().has_value();
  if (!hadState && returned) {
    logLevel(1,
             "%@: Machine sync operation returned syncState data, this will be appended to Orv "
             "headers in future",
             kClassName);
  } else if (hadState && !returned) {
    logLevel(1,
             "%@: Machine sync operation did not return syncState data, clearing cached syncState",
             kClassName);
  }
  setSyncState(returned);
}

// A store, or a process that claims to hand in what a store said, can order without an end.
std::optional<std::uint64_t> OrvController::_numberOfNext(const std::string& client) {
  const std::lock_guard guard(_lock);
  Waiting& waiting = _waiting[client];
  if (waiting.count >= kMostWaitingActions) return std::nullopt;
  ++waiting.count;
  return ++waiting.lastNumber;
}

bool OrvController::_isDropped(const std::string& client, std::uint64_t number) const {
  const std::lock_guard guard(_lock);
  return number <= _waiting.at(client).dropUpTo;
}

void OrvController::_dropWaitingAfter(const std::optional<Error>& error,
                                      const std::string& client) {
  if (!error || error->domain != "HTTP") return;
  const std::lock_guard guard(_lock);
  Waiting& waiting = _waiting.at(client);
  waiting.dropUpTo = waiting.lastNumber;
}

void OrvController::_isDone(const std::string& client) {
  const std::lock_guard guard(_lock);
  const auto found = _waiting.find(client);
  if (--found->second.count == 0) _waiting.erase(found);
}

// State

std::optional<Data> OrvController::syncState() const {
  const std::lock_guard guard(_lock);
  return _syncState;
}

void OrvController::setSyncState(std::optional<Data> syncState) {
  const std::lock_guard guard(_lock);
  _syncState = std::move(syncState);
}

OrvController::Status OrvController::status() const {
  Status status;
  status.hasSyncState = syncState().has_value();
  if (_isExchanging) return status;
  _serialQueue.sync([&status] {
    status.library = OrvLibrary::shared().name();
    status.provisionedDSIDs = OrvLibrary::shared().provisionedDSIDs();
  });
  return status;
}

}  // namespace tallow
