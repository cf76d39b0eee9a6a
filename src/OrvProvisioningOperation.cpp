#include "src/OrvProvisioningOperation.h"

#include <utility>

#include "platform/VendBase/HSDevice.h"
#include "src/OrvExchange.h"

namespace tallow {

OrvProvisioningOperation::OrvProvisioningOperation(std::optional<Data> initWithData,
                                                   std::optional<std::uint64_t> dsID,
                                                   std::shared_ptr<const HSStoreClient> storeClient)
    : HSOperation(std::move(storeClient)), _data(std::move(initWithData)), _dsID(dsID) {}

void OrvProvisioningOperation::run() {
  const OrvLibrary& library = OrvLibrary::shared();
  std::uint32_t session = 0;
  Dictionary body;
  {
    OrvBuffer clientData;
    const std::int32_t status = library.startProvisioning(
        _dsID.value_or(0), OrvExchange::bytesOf(_data), clientData, session);
    if (status != kOrvSuccess) {
      setError(OrvExchange::libraryError(status));
      return;
    }
    body = {{"clientData", OrvExchange::base64Of(clientData)},
            {"guid", HSDevice::shared().guid()},
            {"dsId", _dsID}};
  }
  std::optional<Error> error = finishSession(session, body);
  library.endSession(session);
  setSuccess(!error);
  setError(std::move(error));
}

std::optional<Error> OrvProvisioningOperation::finishSession(std::uint32_t session,
                                                             const Dictionary& body) {
  const auto operation = OrvExchange::postOperation(
      body, _dsID == kAnonymousDSID ? "amd-finish-provisioning" : "md-finish-provisioning",
      storeClient());
  operation->setSendToken(true);
  std::optional<Data> settingInfo, transportKey;
  std::optional<Error> serverError;
  operation->setOutputHandler([&](HSStoreURLOperation&, const Value& output) {
    const Dictionary* const answer = output.dictionary();
    if (answer == nullptr) return;
    settingInfo = OrvExchange::decodedData(*answer, "settingInfo");
    transportKey = OrvExchange::decodedData(*answer, "transportKey");
    serverError = OrvExchange::serverError(*answer);
  });
  std::optional<Error> error;
  if (!runSubOperation(*operation, &error))
    return error ? error : OrvExchange::libraryError(kOrvUnusableAnswer);
  if (serverError) return serverError;
  const std::int32_t status = OrvLibrary::shared().finishProvisioning(
      session, OrvExchange::bytesOf(settingInfo), OrvExchange::bytesOf(transportKey));
  return status == kOrvSuccess ? std::nullopt : std::optional(OrvExchange::libraryError(status));
}

}  // namespace tallow
