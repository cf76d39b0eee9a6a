#include "src/OrvProvisioningOperation.h"

#include <utility>

#include "platform/VendBase/HSDevice.h"
#include "src/OrvExchange.h"

namespace tallow {

namespace {

// Ends the library's session, after everything else that is done with it.
struct SessionEnd {
  const OrvLibrary& library;
  const std::uint32_t session;

  SessionEnd(const OrvLibrary& ofLibrary, std::uint32_t toEnd)
      : library(ofLibrary), session(toEnd) {}
  SessionEnd(const SessionEnd&) = delete;
  SessionEnd& operator=(const SessionEnd&) = delete;
  ~SessionEnd() { library.endSession(session); }
};

}  // namespace

OrvProvisioningOperation::OrvProvisioningOperation(std::optional<Data> initWithData,
                                                   std::optional<std::uint64_t> dsID,
                                                   std::shared_ptr<const HSStoreClient> storeClient)
    : HSOperation(std::move(storeClient)), _data(std::move(initWithData)), _dsID(dsID) {}

void OrvProvisioningOperation::run() {
  const OrvLibrary& library = OrvLibrary::shared();
  std::uint32_t session = 0;
  OrvBuffer clientData;
  const std::int32_t status = library.startProvisioning(
      _dsID.value_or(0), OrvExchange::bytesOf(_data), clientData, session);
  if (status != kOrvSuccess) return fail(OrvExchange::libraryError(status));
  const SessionEnd end{library, session};
  const Dictionary body = {{"clientData", OrvExchange::base64Of(clientData)},
                           {"guid", HSDevice::shared().guid()},
                           {"dsId", _dsID}};
  clientData = OrvBuffer();
  exchange(session, body);
}

void OrvProvisioningOperation::exchange(std::uint32_t session, const Dictionary& body) {
  Result<URL> url = OrvExchange::secureURL(
      *this, _dsID == kAnonymousDSID ? "amd-finish-provisioning" : "md-finish-provisioning");
  if (!url) return fail(url.error());
  const auto operation = OrvExchange::postOperation(body, *std::move(url), storeClient());
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
  if (!runSubOperation(*operation, &error)) return fail(std::move(error));
  if (serverError) return fail(std::move(serverError));
  const std::int32_t status = OrvLibrary::shared().finishProvisioning(
      session, OrvExchange::bytesOf(settingInfo), OrvExchange::bytesOf(transportKey));
  if (status != kOrvSuccess) return fail(OrvExchange::libraryError(status));
  setSuccess(true);
}

void OrvProvisioningOperation::fail(std::optional<Error> error) {
  setSuccess(false);
  setError(std::move(error));
}

}  // namespace tallow
