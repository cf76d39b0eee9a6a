#pragma once

#include <cstdint>
#include <span>

namespace tallow {

inline constexpr std::uint64_t kSandboxNamed = 1;

// Confines this process, for good, to a named profile: files through Landlock, system calls through
// seccomp, and no capabilities. Call before any other thread exists. Returns 0, or -1 with
// *errorText set to a text to be given back to sandbox_free_error. A kernel without Landlock is
// logged and not an error; an unknown profile, a malformed profile file, or a kernel that refuses a
// rule is.
//
// Profiles are files NAME.toml in the sandbox/ folder of the system's data directories (not of the
// user's own, where a confined service could write its next profile), with a built-in one for
// "com.vantor.tallowd": packaging/sandbox/com.vantor.tallowd.toml, which documents the format.
//
// The service's own folders are made before they can no longer be. A process under Landlock cannot
// read /proc/PID/exe of another: what looks at callers has to be split off before.
int sandbox_init(const char* profile, std::uint64_t flags, char** errorText);
void sandbox_free_error(char* errorText);

// Gives sandbox_init the built-in profile's system-call filter as compiled beforehand (see
// BuiltInFilter.h), which saves a start the compiling. Without it, and for every other profile, the
// filter is compiled on the spot. `program` must stay.
void sandbox_use_compiled_filter(std::span<const std::uint64_t> program);

}  // namespace tallow
