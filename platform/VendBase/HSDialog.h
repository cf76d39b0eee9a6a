#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Secret.h"
#include "platform/Base/Value.h"

namespace tallow {

// What a dialog that asks to sign in has beside its texts.
struct HSDialogSignIn {
  std::string accountName;  // to begin with
  bool isFixed = false;     // this account and no other
  // What for, as the request's authentication context says; 0 where it says nothing.
  std::int64_t reason = 0;
};

// A dialog that a store asks to be shown to the person at the machine (docs/store-requests.md says
// how an answer carries one). A plain value.
//
// It comes from a server and goes to programs that show text: control characters and those that
// change the direction of text are taken out, texts and buttons are bounded.
struct HSDialog {
  static constexpr std::size_t kMaxMessageBytes = 1024;
  static constexpr std::size_t kMaxExplanationBytes = 8192;
  static constexpr std::size_t kMaxTitleBytes = 128;
  static constexpr std::size_t kMaxButtons = 8;

  struct Button {
    std::string title;
    bool dismisses = false;  // what it does is what closing the dialog does
  };
  using SignIn = HSDialogSignIn;

  std::string client;  // the store client that it is for; set when it is shown
  std::string message;
  std::string explanation;
  std::vector<Button> buttons;  // at least one; the first is the one that is meant to be pressed
  std::optional<SignIn> signIn;

  // nullopt for what is no dialog, or one with nothing in it to show. Parts of a wrong type are
  // left out; buttons after the eighth, too.
  static std::optional<HSDialog> fromProtocolValue(const Value& value);
  // Any text from a store as it may be shown.
  static std::string shownText(std::string_view text);
  // As an agent gets it (com.vantor.HSDialogAgent).
  Dictionary dictionary() const;
};

// What a person has done with a dialog.
struct HSDialogAnswer {
  std::optional<std::size_t> button;  // nullopt: closed
  std::string accountName;
  Secret password;

  bool isDismissalOf(const HSDialog& dialog) const {
    return !button || *button >= dialog.buttons.size() || dialog.buttons[*button].dismisses;
  }
};

}  // namespace tallow
