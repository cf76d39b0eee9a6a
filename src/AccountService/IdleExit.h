#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/XPC/XPCListener.h"

namespace tallow {

// Ends the process when nobody has needed it for a while: no caller is connected, none has called,
// no transaction is open, no operation and no queued work runs, and everything is on disk. The bus
// starts it again when it is called, and no call is lost in between: the name is given up first; if
// somebody has called all the same, it is taken back. Only then does the main run loop stop, with
// kLeft.
//
// Whoever asks the process to end (SIGTERM) has it leave in the same way, busy or not; what has not
// been answered after kPatienceSeconds, by it or by a peer that it has something for, is not waited
// for.
//
// Owned by the host; main run loop only. Leaving when idle is off unless asked for.
class IdleExit {
 public:
  static constexpr const char* kClassName = "IdleExit";
  // The environment variable: after how many seconds; absent, empty or 0: never.
  static constexpr const char* kVariable = "TALLOW_IDLE_EXIT";
  // What the main run loop is stopped with.
  static constexpr int kLeft = 64;
  static constexpr double kPatienceSeconds = 20;

  // The variable's value; nothing when it is off, and, logged, when it is no number.
  static std::optional<double> secondsFromEnvironment();

  // The listener must have been resumed, and outlives this object. Without `seconds` it leaves only
  // when it is told to.
  IdleExit(XPCListener& listener, std::optional<double> seconds);
  ~IdleExit();
  IdleExit(const IdleExit&) = delete;
  IdleExit& operator=(const IdleExit&) = delete;

  void leaveNow();

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace tallow
