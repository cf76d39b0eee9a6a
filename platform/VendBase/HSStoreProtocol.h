#pragma once

#include <cstdint>
#include <optional>

#include "platform/Base/Error.h"
#include "platform/Base/Value.h"
#include "platform/VendBase/HSDialog.h"

namespace tallow {

class HSStoreURLOperation;

// What a store's answer asks to be done beside what it answers (docs/store-requests.md): hands the
// credit text to the account service, tells the download service that something waits for it, has
// dialogs shown, signs in who enters a name and password in one. Made by the property-list provider
// for one answer, on the thread of the operation that got it.
class HSStoreProtocol {
 public:
  static constexpr const char* kClassName = "HSStoreProtocol";  // in log lines

  struct Switches {
    bool dialogs = false;
    bool downloads = true;
  };
  struct Outcome {
    // A dialog was shown, and a person has pressed something other than what closes it.
    bool didProcessDialog = false;
    // Who signed in there.
    std::optional<std::uint64_t> authenticatedAccountDSID;
    // The answer is no answer: signing in failed, or nobody wanted to and the store says nothing
    // more.
    std::optional<Error> error;
  };
  // Of a name and a password, at one dialog.
  static constexpr int kMaxSignInTries = 10;

  HSStoreProtocol(HSStoreURLOperation& operation, Switches switches)
      : _operation(operation), _switches(switches) {}

  // May take minutes when there is a dialog.
  Outcome process(const Dictionary& answer);

 private:
  void _processCredit(const Dictionary& answer);
  void _processDownloads(const Dictionary& answer);
  void _processDialog(const Dictionary& answer);
  void _signIn(HSDialog dialog, HSDialogAnswer answer);

  HSStoreURLOperation& _operation;
  const Switches _switches;
  Outcome _outcome;
};

}  // namespace tallow
