#pragma once

namespace tallow {

// The domain of every error of confining a process; the code is an errno.
inline constexpr const char* kSandboxErrorDomain = "Sandbox";

}  // namespace tallow
