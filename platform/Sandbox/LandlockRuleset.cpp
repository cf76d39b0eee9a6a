#include "platform/Sandbox/LandlockRuleset.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Format.h"

namespace tallow {
namespace {

// Rights and layouts that came after the headers of Debian 12.
constexpr std::uint64_t kTruncate = 1ULL << 14;            // version 3
constexpr std::uint64_t kDeviceControl = 1ULL << 15;       // version 5
constexpr std::uint64_t kBindTCP = 1ULL << 0;              // version 4
constexpr std::uint64_t kScopeAbstractSocket = 1ULL << 0;  // version 6
constexpr std::uint64_t kScopeSignal = 1ULL << 1;          // version 6

struct RulesetAttributes {
  std::uint64_t handledFileRights = 0;
  std::uint64_t handledNetworkRights = 0;
  std::uint64_t scoped = 0;
};

constexpr std::uint64_t kReadRights = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t kWriteRights =
    kReadRights | LANDLOCK_ACCESS_FS_WRITE_FILE | kTruncate | LANDLOCK_ACCESS_FS_REMOVE_DIR |
    LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
    LANDLOCK_ACCESS_FS_REFER;
// Those that make sense for something that is not a folder.
constexpr std::uint64_t kFileRights = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE |
                                      LANDLOCK_ACCESS_FS_READ_FILE | kTruncate | kDeviceControl;

std::uint64_t knownFileRights(int kernelVersion) {
  std::uint64_t rights = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
  if (kernelVersion >= 2) rights |= LANDLOCK_ACCESS_FS_REFER;
  if (kernelVersion >= 3) rights |= kTruncate;
  if (kernelVersion >= 5) rights |= kDeviceControl;
  return rights;
}

Error failure(const std::string& what) {
  const int code = errno;
  return makeError(kSandboxErrorDomain, code, format("%s: %s", what, std::strerror(code)));
}

std::optional<Error> allowBeneath(int ruleset, const std::filesystem::path& path,
                                  std::uint64_t rights) {
  const FileDescriptor target(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status = {};
  // What is not there, or hidden from this user, needs no permission.
  if (!target || fstat(target.get(), &status) != 0) return std::nullopt;
  landlock_path_beneath_attr rule = {};
  rule.allowed_access = S_ISDIR(status.st_mode) ? rights : rights & kFileRights;
  rule.parent_fd = target.get();
  if (syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) != 0)
    return failure("cannot allow access to " + path.string());
  return std::nullopt;
}

}  // namespace

Result<int> LandlockRuleset::kernelVersion() {
  const long version =
      syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (version < 1) return failure("no Landlock");
  return static_cast<int>(version);
}

std::optional<Error> LandlockRuleset::apply(const Rules& rules, int kernelVersion) {
  RulesetAttributes attributes;
  const std::uint64_t known = knownFileRights(kernelVersion);
  attributes.handledFileRights = known;
  if (kernelVersion >= 4 && !rules.listen) attributes.handledNetworkRights = kBindTCP;
  if (kernelVersion >= 6)
    attributes.scoped = kScopeSignal | (rules.abstractSockets ? 0 : kScopeAbstractSocket);

  // Kernels older than a field take the longer structure as long as the field is zero.
  const FileDescriptor ruleset(
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof(attributes), 0)));
  if (!ruleset) return failure("cannot make a Landlock ruleset");
  for (const std::filesystem::path& path : rules.read)
    if (auto error = allowBeneath(ruleset.get(), path, kReadRights & known)) return error;
  for (const std::filesystem::path& path : rules.write)
    if (auto error = allowBeneath(ruleset.get(), path, kWriteRights & known)) return error;
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return failure("cannot give up privileges");
  if (syscall(SYS_landlock_restrict_self, ruleset.get(), 0) != 0)
    return failure("cannot enter the Landlock ruleset");
  return std::nullopt;
}

}  // namespace tallow
