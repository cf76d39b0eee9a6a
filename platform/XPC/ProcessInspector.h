#pragma once

#include <cstdint>
#include <optional>

#include "platform/XPC/ProcessIdentity.h"

namespace tallow {

// Looks at other processes on behalf of a process that has confined itself: the kernel does not let
// a process under Landlock read /proc/PID/exe of one outside of it. startHelper(), called before
// the confinement, forks a helper that stays outside, has nothing but a socket, and answers this
// one question; without it the calling process looks by itself. The helper ends with its parent; a
// service whose helper has ended stops, since it could recognise nobody.
//
// Looking at other users' processes takes a capability. So that the service has none, the helper
// may be a unit of its own: startHelper() then connects to the socket that TALLOW_INSPECTOR names,
// on whose other end serve() runs.
class ProcessInspector {
 public:
  static constexpr const char* kClassName = "ProcessInspector";  // in log lines

  virtual ~ProcessInspector() = default;
  static ProcessInspector& shared();

  // While the process has one thread only. False, with errno, when there can be no helper.
  static bool startHelper();
  // Answers the questions that come in through the socket (standard input, where a unit with
  // StandardInput=socket has it) until its other end is closed; one thread only.
  [[noreturn]] static void serve(int socket = 0);

  // See ProcessIdentity::inspect. Any thread; gives up on a process that takes longer than a few
  // seconds to look at.
  virtual ProcessIdentity inspect(std::int64_t pid, int pidfd,
                                  std::optional<std::uint32_t> uid = std::nullopt) = 0;
};

}  // namespace tallow
