#include "tools/tallowctl/TerminalDialog.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>

#include "tools/tallowctl/Application.h"
#include "tools/tallowctl/Terminal.h"

namespace tallow::ctl {

namespace {

std::string_view textUnder(const Dictionary& dictionary, const char* key) {
  const std::string* const text = dictionary[key].string();
  return text != nullptr ? std::string_view(*text) : std::string_view();
}

// The first button that closes the dialog, or that does not.
std::optional<std::size_t> buttonThat(bool dismisses, const Dictionary& dialog) {
  const Array* const buttons = dialog["buttons"].array();
  for (std::size_t i = 0; buttons != nullptr && i < buttons->count(); ++i) {
    const Dictionary* const button = (*buttons)[i].dictionary();
    if (button != nullptr && (*button)["dismisses"].boolValue().value_or(false) == dismisses)
      return i;
  }
  return std::nullopt;
}

// By its number; an empty line takes the only one there is, or closes.
std::optional<std::size_t> askForButton(const Terminal& terminal, const Dictionary& dialog) {
  const Array* const buttons = dialog["buttons"].array();
  if (buttons == nullptr || buttons->empty()) return std::nullopt;
  for (std::size_t i = 0; i < buttons->count(); ++i) {
    const Dictionary* const button = (*buttons)[i].dictionary();
    terminal.say(std::to_string(i + 1) + ") " +
                 std::string(button != nullptr ? textUnder(*button, "title") : ""));
  }
  const bool isOnly = buttons->count() == 1;
  const auto line = terminal.askLine(isOnly ? "Number (empty: 1): " : "Number (empty: close): ");
  if (!line) return std::nullopt;
  std::size_t number = isOnly && line->empty() ? 1 : 0;
  std::from_chars(line->data(), line->data() + line->size(), number);
  return number >= 1 && number <= buttons->count() ? std::optional(number - 1) : std::nullopt;
}

DialogAgent::Answer askForSignIn(const Terminal& terminal, const Dictionary& dialog) {
  const Dictionary& signIn = *dialog["signIn"].dictionary();
  std::string name(textUnder(signIn, "accountName"));
  if (!signIn["fixed"].boolValue().value_or(false)) {
    const auto line =
        terminal.askLine(name.empty() ? "Account name: " : "Account name [" + name + "]: ");
    if (!line) return {};
    if (!line->empty()) name = *line;
  }
  if (name.empty()) return {};
  auto password = terminal.askSecret("Password for " + name + " (empty: cancel): ");
  if (!password || password->empty()) return {buttonThat(true, dialog), {}, Secret()};
  const auto button = buttonThat(false, dialog);
  if (!button) return {};
  return {button, std::move(name), *std::move(password)};
}

}  // namespace

DialogAgent::Answer showOnTerminal(const DialogAgent::Dialog& dialog) {
  auto terminal = Terminal::open();
  if (!terminal) return {};
  terminal->giveUpWhenReadable(dialog.goneFile);
  terminal->say("The store has a question for " +
                std::string(textUnder(dialog.contents, "client")) + ":");
  terminal->saySetIn(textUnder(dialog.contents, "message"));
  terminal->saySetIn(textUnder(dialog.contents, "explanation"));
  DialogAgent::Answer answer;
  if (dialog.contents["signIn"].dictionary() != nullptr)
    answer = askForSignIn(*terminal, dialog.contents);
  else
    answer.button = askForButton(*terminal, dialog.contents);
  if (terminal->hasGivenUp()) {
    terminal->say("");
    terminal->say("Nobody waits for the answer any more.");
  }
  return answer;
}

std::unique_ptr<DialogAgent> showDialogsOnTerminal(const Application& application) {
  if (application.instance() != AccountServiceClient::Instance::Agent || !Terminal::isThere())
    return nullptr;
  Result<std::unique_ptr<DialogAgent>> agent =
      DialogAgent::start(application.client(), showOnTerminal);
  if (agent) return std::move(*agent);
  application.output().line("The store can ask nothing here: " +
                            agent.error().localizedDescription());
  return nullptr;
}

}  // namespace tallow::ctl
