#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Base/Secret.h"

namespace tallow::ctl {

// The terminal that the person sits at, whatever standard input and output are: questions go there
// and answers come from there, so that output for programs stays clean. Opened for each
// conversation, by one thread; a second conversation waits for the first to end.
class Terminal {
 public:
  static bool isThere();
  // Nothing where the process has no terminal.
  static std::optional<Terminal> open();
  ~Terminal();
  Terminal(Terminal&& other) noexcept;
  Terminal& operator=(Terminal&&) = delete;

  // Questions are given up when this file becomes readable; -1: never.
  void giveUpWhenReadable(int descriptor) { _giveUp = descriptor; }

  // Texts from elsewhere are shown with control characters escaped.
  void say(std::string_view text) const;
  // Line by line and set in, so that none of somebody else's can pass for one of this program's.
  void saySetIn(std::string_view text) const;
  // Whether the question has been given up; what was typed for it is then thrown away.
  bool hasGivenUp() const;
  // A line, without its end; nothing at the end of input, or when the question is given up.
  std::optional<std::string> askLine(std::string_view prompt) const;
  // The same without echo. Whatever ends the process meanwhile, the terminal echoes again.
  std::optional<Secret> askSecret(std::string_view prompt) const;

  // A secret from a stream that is not a terminal: its first line.
  static std::optional<Secret> readSecretLine(int descriptor);

 private:
  Terminal(int descriptor, std::unique_lock<std::mutex> turn)
      : _descriptor(descriptor), _turn(std::move(turn)) {}
  static std::optional<Secret> readSecretLine(int descriptor, int giveUp);

  int _descriptor;
  int _giveUp = -1;
  std::unique_lock<std::mutex> _turn;
};

}  // namespace tallow::ctl
