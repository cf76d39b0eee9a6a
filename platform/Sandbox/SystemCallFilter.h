#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Base/Error.h"
#include "platform/Base/Result.h"
#include "platform/Sandbox/SandboxError.h"

namespace tallow {

// Confines the calling thread to a list of system calls through seccomp. A call in neither list
// fails with ENOSYS. Error domain "Sandbox", code = errno.
//
// Calls whose arguments decide are always there and always checked: clone (threads only), socket
// and socketpair, mmap and mprotect (never writable and executable at once, nor made executable
// later), ioctl, kill and tgkill, prlimit64.
class SystemCallFilter {
 public:
  static constexpr const char* kClassName = "SystemCallFilter";  // in log lines

  struct Rules {
    std::vector<std::string> allowed;
    std::vector<std::string> refused;  // fail with EPERM
    std::vector<std::string> socketFamilies;
    bool listen = false;
  };

  // What the kernel runs: its instructions (struct sock_filter), each as one number.
  using Program = std::vector<std::uint64_t>;
  // Stands in a program for the number of the process that it is to confine.
  static constexpr std::uint32_t kSelf = 0x73656c66;

  // Compiling takes longer than all else that confining does.
  static Result<Program> compile(const Rules& rules);
  // Puts the calling thread, and those it will start, under the program, for good.
  static std::optional<Error> apply(std::span<const std::uint64_t> program);
};

}  // namespace tallow
