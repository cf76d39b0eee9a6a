#include "src/OrvMachineSyncOperation.h"

#include <utility>

#include "platform/VendBase/VBLogManager.h"
#include "src/OrvExchange.h"

namespace tallow {

OrvMachineSyncOperation::OrvMachineSyncOperation(std::optional<Data> initWithData,
                                                 std::optional<std::uint64_t> dsID,
                                                 std::shared_ptr<const HSStoreClient> storeClient)
    : HSOperation(std::move(storeClient)), _data(std::move(initWithData)), _dsID(dsID) {}

void OrvMachineSyncOperation::run() {
  Dictionary body;
  {
    OrvBuffer machineIdentifier, clientData;
    const std::int32_t status = OrvLibrary::shared().synchronizeMachine(
        _dsID.value_or(0), OrvExchange::bytesOf(_data), machineIdentifier, clientData);
    if (status != kOrvSuccess) {
      setError(OrvExchange::libraryError(status));
      return;
    }
    body = {{"clientData", OrvExchange::base64Of(clientData)},
            {"machineId", OrvExchange::base64Of(machineIdentifier)},
            {"dsId", _dsID}};
  }
  Result<URL> url = OrvExchange::secureURL(
      *this, _dsID == kAnonymousDSID ? "amd-sync-machine" : "md-sync-machine");
  if (!url) {
    setError(url.error());
    return;
  }
  const auto operation = OrvExchange::postOperation(body, *std::move(url), storeClient());
  std::optional<Error> serverError;
  operation->setOutputHandler([&](HSStoreURLOperation&, const Value& output) {
    const Dictionary* const answer = output.dictionary();
    if (answer == nullptr) return;
    serverError = OrvExchange::serverError(*answer);
    if ((*answer)["syncState"].isNil()) return;
    setSyncState(OrvExchange::decodedData(*answer, "syncState"));
    logLevel(1, "%@: Server returned syncState", kClassName);
    if (const auto state = syncState(); state && state->length() > OrvExchange::kLongestSyncState) {
      logLevel(1, "%@: Its %lu bytes are too many to be sent with every request", kClassName,
               state->length());
      setSyncState(std::nullopt);
    }
  });
  std::optional<Error> error;
  const bool isAnswered = runSubOperation(*operation, &error);
  setSuccess(isAnswered && !serverError);
  setError(error ? error : serverError);
}

std::optional<Data> OrvMachineSyncOperation::syncState() const {
  const std::lock_guard guard(_lock);
  return _syncState;
}

void OrvMachineSyncOperation::setSyncState(std::optional<Data> syncState) {
  const std::lock_guard guard(_lock);
  _syncState = std::move(syncState);
}

}  // namespace tallow
