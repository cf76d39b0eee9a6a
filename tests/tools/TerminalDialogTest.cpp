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

TEST(TerminalDialogTest, AsksForNameAndPasswordWithoutShowingIt) {
  const struct {
    Dictionary dialog;
    std::vector<std::string> lines;
    const char* answer;
  } cases[] = {
      {signIn("ada"), {"", "hunter2"}, "0 ada hunter2"},
      {signIn("ada"), {"bob", "hunter2"}, "0 bob hunter2"},
      {signIn("ada", true), {"hunter2"}, "0 ada hunter2"},
      {signIn(""), {"bob", ""}, "1  "},  // an empty password cancels
      {signIn(""), {""}, "-1  "},
      {signIn("ada").removing("buttons"), {"", "hunter2"}, "-1  "},
  };
  for (const auto& each : cases) {
    const Shown shown = show(each.dialog, each.lines);
    EXPECT_EQ(shown.answer, each.answer) << shown.terminal;
    EXPECT_EQ(shown.terminal.find("hunter2"), std::string::npos) << shown.terminal;
    EXPECT_NE(shown.terminal.find("com.example.store"), std::string::npos) << "for whom";
    EXPECT_TRUE(shown.showsAgain);
  }
}

TEST(TerminalDialogTest, ShowsTextsHarmlessAndTakesAButtonByItsNumber) {
  std::vector<Value> buttons(100, Value(Dictionary{{"title", "b\x1b[2J"}}));
  const Dictionary many{{"message", "\x1b]0;owned\x07"}, {"buttons", Array(buttons)}};
  const Dictionary one{{"message", "m"}, {"buttons", Array{Dictionary{{"title", "OK"}}}}};
  const struct {
    Dictionary dialog;
    std::vector<std::string> lines;
    bool isGone;
    const char* answer;
  } cases[] = {{many, {"100"}, false, "99  "}, {many, {"101"}, false, "-1  "},
               {many, {"-1"}, false, "-1  "},  {many, {""}, false, "-1  "},
               {one, {""}, false, "0  "},      {one, {"what?"}, false, "-1  "},
               {one, {}, true, "-1  "},        {Dictionary(), {}, false, "-1  "}};
  for (const auto& each : cases) {
    const Shown shown = show(each.dialog, each.lines, each.isGone);
    EXPECT_EQ(shown.answer, each.answer) << shown.terminal;
    EXPECT_EQ(shown.terminal.find('\x1b'), std::string::npos);
    EXPECT_EQ(shown.terminal.find("Nobody waits") != std::string::npos, each.isGone);
  }
}

}  // namespace
}  // namespace tallow
