#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/Sandbox/SandboxError.h"

namespace tallow {

// Confines the calling thread's access to files, and to what lies outside its sandbox, through
// Landlock (linux/landlock.h, https://docs.kernel.org/userspace-api/landlock.html): as much of it
// as the running kernel knows. Error domain "Sandbox", code = errno.
class LandlockRuleset {
 public:
  struct Rules {
    std::vector<std::filesystem::path> read;
    std::vector<std::filesystem::path> write;
    bool listen = false;           // TCP ports may be bound
    bool abstractSockets = false;  // abstract UNIX sockets of other processes may be reached
  };

  // The version of the kernel's interface; the errno that says why there is none.
  static Result<int> kernelVersion();

  // Puts the calling thread, and those it will start, under `rules`, for good.
  static std::optional<Error> apply(const Rules& rules, int kernelVersion);
};

}  // namespace tallow
