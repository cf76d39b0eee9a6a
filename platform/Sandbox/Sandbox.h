#pragma once

#include <cstdint>

namespace tallow {

inline constexpr std::uint64_t kSandboxNamed = 1;

// Confines this process, for good, to a named profile: files through Landlock, system calls through
// seccomp. Call before any other thread exists. Returns 0, or -1 with *errorText set to a text to
// be given back to sandbox_free_error. A kernel without Landlock is logged and not an error; an
// unknown profile, a malformed profile file, or a kernel that refuses a rule is.
//
// Profiles are files NAME.toml in the data directories' sandbox/ folder, with a built-in one for
// "com.vantor.tallowd".
int sandbox_init(const char* profile, std::uint64_t flags, char** errorText);
void sandbox_free_error(char* errorText);

}  // namespace tallow
