#include "platform/VendBase/HSDialog.h"

#include <string_view>
#include <utility>

#include "platform/Base/UTF8.h"

namespace tallow {

namespace {

struct CodePoint {
  char32_t value = 0;
  std::size_t bytes = 1;
};

// The first character of valid UTF-8.
CodePoint firstOf(std::string_view text) {
  const auto byte = [&](std::size_t index) {
    return static_cast<char32_t>(static_cast<unsigned char>(text[index]));
  };
  const char32_t lead = byte(0);
  const std::size_t bytes = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  char32_t value = bytes == 1 ? lead : lead & (0xFFu >> (bytes + 1));
  for (std::size_t i = 1; i < bytes; ++i) value = value << 6 | (byte(i) & 0x3F);
  return {value, bytes};
}

// Whatever a terminal acts on, and whatever makes text look like other text.
bool isHarmless(char32_t character, bool keepsLines) {
  if (character == '\n') return keepsLines;
  const bool isControl = character < 0x20 || (character >= 0x7F && character < 0xA0);
  const bool turnsText = character == 0x061C || (character >= 0x200B && character <= 0x200F) ||
                         (character >= 0x2028 && character <= 0x202E) ||
                         (character >= 0x2060 && character <= 0x206F) || character == 0xFEFF;
  return !isControl && !turnsText;
}

std::string harmless(std::string_view text, std::size_t maxBytes, bool keepsLines) {
  // What is left out is bounded as well.
  const std::string valid = replacingInvalidUTF8(text.substr(0, 2 * maxBytes));
  std::string shown;
  for (std::string_view rest = valid; !rest.empty();) {
    const CodePoint next = firstOf(rest);
    if (isHarmless(next.value, keepsLines)) {
      shown += rest.substr(0, next.bytes);
    } else if (next.value == '\n' || next.value == '\t') {
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
