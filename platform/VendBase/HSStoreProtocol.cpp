#include "platform/VendBase/HSStoreProtocol.h"

#include <utility>

#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSSignInOperation.h"
#include "platform/VendBase/HSStoreURLOperation.h"
#include "platform/VendBase/StoreProtocolKeys.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr const char* kDownloadsKey = "downloads";
constexpr const char* kDialogKey = "dialog";

// "downloads" is a list of what waits, or simply true.
bool saysThatDownloadsWait(const Value& downloads) {
  if (const Array* const list = downloads.array()) return !list->empty();
  return downloads.boolValue().value_or(false);
}

}  // namespace

HSStoreProtocol::Outcome HSStoreProtocol::process(const Dictionary& answer) {
  _processCredit(answer);
  _processDownloads(answer);
  _processDialog(answer);  // last: it waits
  return std::move(_outcome);
}

void HSStoreProtocol::_processCredit(const Dictionary& answer) {
  if (!answer.contains(kStoreCreditDisplayKey)) return;
  if (const auto service = _operation.serviceProxy().accountService())
    service->parseCreditStringForProtocol(answer, {});
}

void HSStoreProtocol::_processDownloads(const Dictionary& answer) {
  if (!_switches.downloads || !saysThatDownloadsWait(answer[kDownloadsKey])) return;
  _operation.serviceProxy().downloadService()->checkAutomaticDownloadQueue(
      [](const std::optional<Error>& error) {
        if (error) logLevel(1, "%@: The downloads wait: %@", HSStoreProtocol::kClassName, *error);
      });
}

void HSStoreProtocol::_processDialog(const Dictionary& answer) {
  if (!_switches.dialogs || !answer.contains(kDialogKey)) return;
  std::optional<HSDialog> dialog = HSDialog::fromProtocolValue(answer[kDialogKey]);
  if (!dialog) {
    logLevel(1, "%@: Ignoring a dialog that cannot be shown", HSStoreProtocol::kClassName);
    return;
  }
  if (dialog->signIn)
    dialog->signIn->reason = _operation.authenticationContext().authenticationReason;
  HSDialogAnswer given = _operation.showDialog(*dialog);
  const bool isDismissed = given.isDismissalOf(*dialog);
  logLevel(3, "%@: The dialog has been %s", HSStoreProtocol::kClassName,
           isDismissed ? "dismissed" : "answered");
  _outcome.didProcessDialog = !isDismissed;
  if (!dialog->signIn) return;
  if (!isDismissed) _signIn(*std::move(dialog), std::move(given));
  if (!_outcome.authenticatedAccountDSID && !_outcome.error &&
      !answer.contains(kStoreFailureTypeKey))
    _outcome.error = HSError(kHSErrorNotSignedIn, "Not signed in", std::nullopt);
}

// Shows the dialog again, with what the store says, until it believes what was entered or the
// person gives up.
void HSStoreProtocol::_signIn(HSDialog dialog, HSDialogAnswer answer) {
  for (int tries = 1;; ++tries) {
    const std::string name =
        dialog.signIn->isFixed ? dialog.signIn->accountName : answer.accountName;
    const auto signIn = std::make_shared<HSSignInOperation>(
        _operation.storeClient(), _operation.authenticationContext(), name,
        std::exchange(answer.password, Secret()));
    signIn->setRequiredBagType(_operation.requiredBagType());
    std::optional<Error> error;
    if (_operation.runStep(*signIn, &error)) {
      _outcome.authenticatedAccountDSID = signIn->dsID();
      return;
    }
    if (!error || error->domain != kHSErrorDomain || error->code != kHSErrorSignInRefused) {
      _outcome.error = std::move(error);
      return;
    }
    if (tries == kMaxSignInTries) {
      _outcome.error = std::move(error);
      return;
    }
    dialog.explanation = HSDialog::shownText(error->localizedDescription());
    dialog.signIn->accountName = HSDialog::shownText(name);
    answer = _operation.showDialog(dialog);
    if (answer.isDismissalOf(dialog)) {
      _outcome.didProcessDialog = false;
      return;
    }
  }
}

}  // namespace tallow
