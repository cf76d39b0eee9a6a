#include "platform/VendBase/HSDialog.h"

#include <string_view>
#include <utility>

#include "platform/Base/UTF8.h"

namespace tallow {

namespace {

std::string harmless(std::string_view text, std::size_t maxBytes, bool keepsLines) {
  // What is left out is bounded as well.
  const std::string valid = replacingInvalidUTF8(text.substr(0, 2 * maxBytes));
  std::string shown;
  for (std::string_view rest = valid; !rest.empty();) {
    const Character next = firstCharacter(rest);
    if (isSeenAsItself(next.codePoint) || (next.codePoint == '\n' && keepsLines)) {
      shown += rest.substr(0, next.bytes);
    } else if (next.codePoint == '\n' || next.codePoint == '\t') {
      shown += ' ';
    }
    rest.remove_prefix(next.bytes);
  }
  return std::string(prefixOnCharacterBoundary(shown, maxBytes));
}

std::string textUnder(const Dictionary& dictionary, const char* key, std::size_t maxBytes,
                      bool keepsLines = false) {
  const std::string* const text = dictionary[key].string();
  return text == nullptr ? "" : harmless(*text, maxBytes, keepsLines);
}

// A button is its title, or a dictionary with more.
std::optional<HSDialog::Button> buttonFrom(const Value& value) {
  HSDialog::Button button;
  if (const std::string* const title = value.string()) {
    button.title = harmless(*title, HSDialog::kMaxTitleBytes, false);
  } else if (const Dictionary* const parts = value.dictionary()) {
    button.title = textUnder(*parts, "title", HSDialog::kMaxTitleBytes);
    button.dismisses = (*parts)["dismisses"].boolValue().value_or(false);
  }
  if (button.title.empty()) return std::nullopt;
  return button;
}

}  // namespace

std::optional<HSDialog> HSDialog::fromProtocolValue(const Value& value) {
  const Dictionary* const parts = value.dictionary();
  if (parts == nullptr) return std::nullopt;
  HSDialog dialog;
  dialog.message = textUnder(*parts, "message", kMaxMessageBytes);
  dialog.explanation = textUnder(*parts, "explanation", kMaxExplanationBytes, true);
  if (const Dictionary* const signIn = (*parts)["signIn"].dictionary()) {
    dialog.signIn.emplace();
    dialog.signIn->accountName = textUnder(*signIn, "accountName", kMaxMessageBytes);
    dialog.signIn->isFixed =
        !dialog.signIn->accountName.empty() && (*signIn)["fixed"].boolValue().value_or(false);
  }
  if (dialog.message.empty() && dialog.explanation.empty() && !dialog.signIn) return std::nullopt;
  if (const Array* const buttons = (*parts)["buttons"].array()) {
    for (const Value& each : *buttons) {
      if (dialog.buttons.size() == kMaxButtons) break;
      if (auto button = buttonFrom(each)) dialog.buttons.push_back(std::move(*button));
    }
  }
  if (dialog.buttons.empty()) {
    dialog.buttons = dialog.signIn ? std::vector<Button>{{"Sign In"}, {"Cancel", true}}
                                   : std::vector<Button>{{"OK"}};
  }
  return dialog;
}

std::string HSDialog::shownText(std::string_view text) {
  return harmless(text, kMaxExplanationBytes, true);
}

Dictionary HSDialog::dictionary() const {
  std::vector<Value> list;
  for (const Button& button : buttons)
    list.emplace_back(Dictionary{{"title", button.title}, {"dismisses", button.dismisses}});
  Dictionary made{{"client", client},
                  {"message", message},
                  {"explanation", explanation},
                  {"buttons", Array(std::move(list))}};
  if (signIn)
    made = made.setting("signIn", Dictionary{{"accountName", signIn->accountName},
                                             {"fixed", signIn->isFixed},
                                             {"reason", signIn->reason}});
  return made;
}

}  // namespace tallow
