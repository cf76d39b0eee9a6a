#include "tools/tallowctl/TerminalDialog.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace tallow {
namespace {

struct Shown {
  std::string terminal;     // what the person has seen
  std::string answer;       // "BUTTON NAME PASSWORD", the button -1 for a closed dialog
  bool showsAgain = false;  // what is typed after it
};

std::string readAll(int file) {
  std::string all;
  char bytes[256];
  for (ssize_t count = 0; (count = read(file, bytes, sizeof bytes)) > 0;)
    all.append(bytes, static_cast<std::size_t>(count));
  return all;
}

// Shows the dialog in a process of its own on a terminal of its own, where a person types the
// lines, each when it is waited for.
Shown show(const Dictionary& dialog, std::vector<std::string> lines, bool isGone = false) {
  int answer[2];
  if (pipe(answer) != 0) return {"no pipe", ""};
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    const int gone = eventfd(isGone ? 1 : 0, 0);
    const auto given = ctl::showOnTerminal({dialog, gone});
    const std::string text = (given.button ? std::to_string(*given.button) : std::string("-1")) +
                             ' ' + given.accountName + ' ' + std::string(given.password.view());
    _exit(write(answer[1], text.data(), text.size()) < 0 ? 1 : 0);
  }
  close(answer[1]);
  Shown shown;
  char bytes[256];
  for (ssize_t count = 0; (count = read(terminal, bytes, sizeof bytes)) > 0;) {
    shown.terminal.append(bytes, static_cast<std::size_t>(count));
    if (!shown.terminal.ends_with(": ") || lines.empty()) continue;
    const std::string line = lines.front() + "\n";
    lines.erase(lines.begin());
    if (write(terminal, line.data(), line.size()) < 0) break;
  }
  shown.answer = readAll(answer[0]);
  waitpid(child, nullptr, 0);
  termios settings{};
  shown.showsAgain = tcgetattr(terminal, &settings) == 0 && (settings.c_lflag & ECHO) != 0;
  close(answer[0]);
  close(terminal);
  return shown;
}

Dictionary signIn(const char* name, bool isFixed = false) {
  return Dictionary{{"client", "com.example.store"},
                    {"message", "Sign in"},
                    {"buttons", Array{Dictionary{{"title", "Sign In"}, {"dismisses", false}},
                                      Dictionary{{"title", "Cancel"}, {"dismisses", true}}}},
                    {"signIn", Dictionary{{"accountName", name}, {"fixed", isFixed}}}};
}

void expectAnswer(const char* answer, const Dictionary& dialog, std::vector<std::string> lines,
                  bool isGone = false) {
  const Shown shown = show(dialog, std::move(lines), isGone);
  SCOPED_TRACE(shown.terminal);
  const auto shows = [&](const char* text) {
    return shown.terminal.find(text) != std::string::npos;
  };
  EXPECT_EQ(shown.answer, answer);
  EXPECT_FALSE(shows("hunter2"));
  EXPECT_FALSE(shows("\x1b")) << "harmless";
  EXPECT_EQ(shows("com.example.store"), dialog.contains("client")) << "for whom";
  EXPECT_EQ(shows("Nobody waits"), isGone);
  EXPECT_TRUE(shown.showsAgain);
}

TEST(TerminalDialogTest, AsksForNameAndPasswordWithoutShowingIt) {
  expectAnswer("0 ada hunter2", signIn("ada"), {"", "hunter2"});
  expectAnswer("0 bob hunter2", signIn("ada"), {"bob", "hunter2"});
  expectAnswer("0 ada hunter2", signIn("ada", true), {"hunter2"});
  expectAnswer("1  ", signIn(""), {"bob", ""});  // an empty password cancels
  expectAnswer("-1  ", signIn(""), {""});
  expectAnswer("-1  ", signIn("ada").removing("buttons"), {"", "hunter2"});
}

TEST(TerminalDialogTest, ShowsTextsHarmlessAndTakesAButtonByItsNumber) {
  const std::vector<Value> buttons(100, Value(Dictionary{{"title", "b\x1b[2J"}}));
  const Dictionary many{{"message", "\x1b]0;owned\x07"}, {"buttons", Array(buttons)}};
  const Dictionary one{{"message", "m"}, {"buttons", Array{Dictionary{{"title", "OK"}}}}};
  expectAnswer("99  ", many, {"100"});
  for (const char* none : {"101", "-1", ""}) expectAnswer("-1  ", many, {none});
  expectAnswer("0  ", one, {""});
  expectAnswer("-1  ", one, {"what?"});
  expectAnswer("-1  ", one, {}, /*isGone=*/true);
  expectAnswer("-1  ", Dictionary(), {});
}

}  // namespace
}  // namespace tallow
