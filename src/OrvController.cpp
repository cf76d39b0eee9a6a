#include "src/OrvController.h"

#include <algorithm>
#include <utility>

#include "platform/Base/Base64.h"
#include "platform/Base/Clock.h"
#include "platform/MerrowKit/MKLogASLMessage.h"
#include "platform/Orv/OrvLibrary.h"
#include "platform/VendBase/OrvAction.h"
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

std::optional<std::vector<Dictionary>> OrvController::httpRequestHeadersForDSIDsIfIdle(
    std::span<const std::uint64_t> dsIDs) {
  std::vector<Dictionary> headers;
  if (dsIDs.empty()) return headers;
  if (!_isLibraryOpen) return std::nullopt;
  _serialQueue.trySync([&] {
    const OrvLibrary& library = OrvLibrary::shared();
    if (!std::all_of(dsIDs.begin(), dsIDs.end(),
                     [&](std::uint64_t dsID) { return library.passwordIsAtHand(dsID); }))
      return;
    for (const std::uint64_t dsID : dsIDs) headers.push_back(*_httpRequestHeadersForDSID(dsID));
  });
  return headers.empty() ? std::nullopt : std::optional(std::move(headers));
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
  OrvAction action = OrvAction::readFrom(headers);
  if (!action.isKnown()) return;
  const std::string client = nameOf(forStoreClient);
  if (!_mayWait(client)) {
    logLevel(1, "Orv: Dropping action %@: %d actions of %@ are waiting already", action.action,
             kMostWaitingActions, forStoreClient);
    return;
  }
  const double ordered = Clock::shared().monotonicSeconds();
  _serialQueue.async([this, action = std::move(action), forStoreClient, client, ordered] {
    // An order behind a store that does not answer would hold up whoever asks for headers for as
    // long again; a store that means it orders again. Forgetting needs no answer.
    const bool isLate = Clock::shared().monotonicSeconds() - ordered > kLongestWaitSeconds;
    if (isLate && !action.is("RP")) {
      logLevel(1, "Orv: Dropping action %@: it has waited too long", action.action);
    } else {
      _process(action, forStoreClient);
    }
    _isDone(client);
  });
}

void OrvController::_process(const OrvAction& action,
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
bool OrvController::_mayWait(const std::string& client) {
  const std::lock_guard guard(_lock);
  int& count = _waiting[client];
  if (count >= kMostWaitingActions) return false;
  ++count;
  return true;
}

void OrvController::_isDone(const std::string& client) {
  const std::lock_guard guard(_lock);
  const auto found = _waiting.find(client);
  if (--found->second == 0) _waiting.erase(found);
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
  _serialQueue.trySync([&status] {
    status.library = OrvLibrary::shared().name();
    status.provisionedDSIDs = OrvLibrary::shared().provisionedDSIDs();
  });
  return status;
}

}  // namespace tallow
