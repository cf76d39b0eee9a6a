#include "platform/Sandbox/Sandbox.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Base/Directories.h"
#include "platform/Base/Format.h"
#include "platform/Sandbox/LandlockRuleset.h"
#include "platform/Sandbox/SandboxProfile.h"
#include "platform/Sandbox/SystemCallFilter.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

constexpr const char* kClassName = "Sandbox";

std::span<const std::uint64_t> builtInFilter;

// Whether the bus or the service manager has to be reached through a socket without a file.
bool needsAbstractSockets() {
  const auto contains = [](const char* variable, std::string_view text) {
    const char* value = std::getenv(variable);
    return value != nullptr && std::string_view(value).find(text) != std::string_view::npos;
  };
  return contains("DBUS_SESSION_BUS_ADDRESS", "abstract") ||
         contains("DBUS_SYSTEM_BUS_ADDRESS", "abstract") || contains("NOTIFY_SOCKET", "@");
}

std::optional<Error> confineFiles(const SandboxProfile& profile) {
  const Result<int> version = LandlockRuleset::kernelVersion();
  if (!version) {
    logLevel(1, "%@: Files are not confined: %@", kClassName, version.error());
    return std::nullopt;
  }
  // Afterwards their parents are out of reach.
  for (const std::filesystem::path& folder : profile.ownFolders)
    if (!ensureDirectoryExists(folder))
      logLevel(1, "%@: Failed to create directory: %@", kClassName, folder.string());
  return LandlockRuleset::apply(
      {profile.readPaths, profile.writePaths, profile.mayListen, needsAbstractSockets()}, *version);
}

// Whatever the service manager or root gave it for what it has done by now. The system call is used
// itself, for want of a wrapper in the C library.
std::optional<Error> dropCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3] = {};
  // Who has none need not be allowed to say so.
  const bool isKnown = syscall(SYS_capget, &header, &held[0]) == 0;
  if (isKnown && std::none_of(std::begin(held), std::end(held), [](const auto& half) {
        return (half.effective | half.permitted | half.inheritable) != 0;
      }))
    return std::nullopt;
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capset, &header, &none[0]) == 0) return std::nullopt;
  const int code = errno;
  return makeError("Sandbox", code, format("cannot give up capabilities: %s", std::strerror(code)));
}

std::optional<Error> confine(const char* profileName, std::uint64_t flags) {
  if (profileName == nullptr || flags != kSandboxNamed)
    return makeError("Sandbox", EINVAL, "only named sandbox profiles are known");
  const Result<SandboxProfile> profile = SandboxProfile::named(profileName);
  if (!profile) return profile.error();
  if (std::optional<Error> error = confineFiles(*profile)) return error;
  if (std::optional<Error> error = dropCapabilities()) return error;
  if (profile->isBuiltIn && !builtInFilter.empty()) return SystemCallFilter::apply(builtInFilter);
  const Result<SystemCallFilter::Program> program = SystemCallFilter::compile(
      {profile->allowedCalls, profile->refusedCalls, profile->socketFamilies, profile->mayListen});
  return program ? SystemCallFilter::apply(*program) : program.error();
}

}  // namespace

void sandbox_use_compiled_filter(std::span<const std::uint64_t> program) {
  builtInFilter = program;
}

int sandbox_init(const char* profile, std::uint64_t flags, char** errorText) {
  if (errorText != nullptr) *errorText = nullptr;
  const std::optional<Error> error = confine(profile, flags);
  if (!error) return 0;
  if (errorText != nullptr) *errorText = strdup(error->localizedDescription().c_str());
  return -1;
}

void sandbox_free_error(char* errorText) {
  std::free(errorText);
}

}  // namespace tallow
