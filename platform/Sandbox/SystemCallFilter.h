#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Base/Error.h"

namespace tallow {

// Confines the calling thread to a list of system calls through seccomp. A call in neither list
// fails with ENOSYS. Error domain "Sandbox", code = errno.
//
// Calls whose arguments decide are always there and always checked: clone (threads only), socket
// and socketpair, mmap and mprotect (never writable and executable), ioctl, kill, prlimit64.
class SystemCallFilter {
 public:
  struct Rules {
    std::vector<std::string> allowed;
    std::vector<std::string> refused;  // fail with EPERM
    std::vector<std::string> socketFamilies;
    bool listen = false;
  };

  // Puts the calling thread, and those it will start, under `rules`, for good.
  static std::optional<Error> apply(const Rules& rules);
};

}  // namespace tallow
