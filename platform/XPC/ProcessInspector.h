#pragma once

#include <cstdint>

#include "platform/XPC/ProcessIdentity.h"

namespace tallow {

// Looks at other processes on behalf of a process that has confined itself: the kernel does not let
// a process under Landlock read /proc/PID/exe of one outside of it. startHelper(), called before
// the confinement, forks a helper that stays outside, has nothing but a socket, and answers this
// one question; without it the calling process looks by itself. The helper ends with its parent.
class ProcessInspector {
 public:
  virtual ~ProcessInspector() = default;
  static ProcessInspector& shared();

  // While the process has one thread only. False, with errno, when there can be no helper.
  static bool startHelper();

  // See ProcessIdentity::inspect. Any thread; gives up on a process that takes longer than a few
  // seconds to look at.
  virtual ProcessIdentity inspect(std::int64_t pid, int pidfd) = 0;
};

}  // namespace tallow
