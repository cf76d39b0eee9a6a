#include "platform/Sandbox/SystemCallFilter.h"

#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <linux/sockios.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Format.h"
#include "platform/Base/Sanitizers.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

// The leak checker looks at the process from a tracer of its own.
constexpr std::string_view kSanitizerCalls[] = {"ptrace", "process_vm_readv", "personality"};

constexpr std::uint32_t kAllow = SCMP_ACT_ALLOW;
constexpr std::uint32_t kRefuse = SCMP_ACT_ERRNO(EPERM);
constexpr std::uint32_t kUnknown = SCMP_ACT_ERRNO(ENOSYS);

constexpr std::uint64_t kSocketTypeMask = 0xf;  // the rest are flags
constexpr std::uint64_t kNamespaceFlags = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS |
                                          CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID |
                                          CLONE_NEWNET;
// TCGETS2 of linux/termios.h, which cannot be included beside the C library's.
constexpr std::uint64_t kGetTerminalAttributes2 = 0x802c542a;
// Asking about descriptors, terminals and network interfaces.
constexpr std::uint64_t kControls[] = {
    FIONREAD,   FIONBIO,     FIOCLEX,      FIONCLEX,     TCGETS,  kGetTerminalAttributes2,
    TIOCGWINSZ, SIOCGIFNAME, SIOCGIFINDEX, SIOCGIFFLAGS, TIOCOUTQ};

scmp_arg_cmp equals(unsigned argument, std::uint64_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}
scmp_arg_cmp differs(unsigned argument, std::uint64_t value) {
  return {argument, SCMP_CMP_NE, value, 0};
}
scmp_arg_cmp atLeast(unsigned argument, std::uint64_t value) {
  return {argument, SCMP_CMP_GE, value, 0};
}
scmp_arg_cmp masked(unsigned argument, std::uint64_t mask, std::uint64_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

Error problem(const std::string& what, int code) {
  return makeError(kSandboxErrorDomain, code, format("%s: %s", what, std::strerror(code)));
}

// The filter while it is put together; the first failure is kept.
class Builder {
 public:
  Builder() : _filter(seccomp_init(kUnknown), &seccomp_release) {
    // A tree of comparisons: the kernel tries every system call with it when it is put in place.
    if (!_filter || seccomp_attr_set(_filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2) != 0)
      fail("cannot make a system-call filter", ENOMEM);
  }

  // `name` fails or succeeds as `action` says, where the arguments are so.
  void add(std::uint32_t action, std::string_view name,
           std::initializer_list<scmp_arg_cmp> arguments = {}) {
    const int number = seccomp_syscall_resolve_name(std::string(name).c_str());
    if (number == __NR_SCMP_ERROR)
      logLevel(2, "%@: The seccomp library does not know the system call %s",
               SystemCallFilter::kClassName, name);
    if (number < 0 || _error) return;  // the others that are negative do not exist on this machine
    const int failure = -seccomp_rule_add_array(
        _filter.get(), action, number, static_cast<unsigned>(arguments.size()), arguments.begin());
    if (failure != 0) fail(format("no rule can be made for the system call %s", name), failure);
  }

  Result<SystemCallFilter::Program> compile() {
    if (_error) return *_error;
    const FileDescriptor file(memfd_create("system-call filter", MFD_CLOEXEC));
    struct stat status = {};
    const int failure = !file ? errno : -seccomp_export_bpf(_filter.get(), file.get());
    if (failure != 0) return problem("cannot compile the system-call filter", failure);
    if (fstat(file.get(), &status) != 0)
      return problem("cannot read the system-call filter", errno);
    SystemCallFilter::Program program(static_cast<std::size_t>(status.st_size) /
                                      sizeof(sock_filter));
    if (pread(file.get(), program.data(), program.size() * sizeof(sock_filter), 0) !=
        static_cast<ssize_t>(program.size() * sizeof(sock_filter)))
      return problem("cannot read the system-call filter", EIO);
    return program;
  }

 private:
  void fail(const std::string& what, int code) {
    if (!_error) _error = problem(what, code);
  }

  std::unique_ptr<std::remove_pointer_t<scmp_filter_ctx>, decltype(&seccomp_release)> _filter;
  std::optional<Error> _error;
};

bool isSanitizerCall(std::string_view name) {
  return kIsSanitized && std::find(std::begin(kSanitizerCalls), std::end(kSanitizerCalls), name) !=
                             std::end(kSanitizerCalls);
}

void addNamed(Builder& builder, const SystemCallFilter::Rules& rules) {
  for (const std::string& name : rules.allowed) builder.add(kAllow, name);
  for (const std::string& name : rules.refused)
    builder.add(isSanitizerCall(name) ? kAllow : kRefuse, name);
  for (const char* name : {"listen", "accept", "accept4"})
    builder.add(rules.listen ? kAllow : kRefuse, name);
}

void addSockets(Builder& builder, const std::vector<std::string>& families) {
  const auto has = [&](std::string_view family) {
    return std::find(families.begin(), families.end(), family) != families.end();
  };
  std::vector<std::uint64_t> allowed;
  for (const auto& [name, domain] :
       {std::pair<const char*, int>{"unix", AF_UNIX}, {"inet", AF_INET}, {"inet6", AF_INET6}}) {
    if (!has(name)) continue;
    const auto family = static_cast<std::uint64_t>(domain);
    allowed.push_back(family);
    for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_SEQPACKET})
      builder.add(kAllow, "socket",
                  {equals(0, family), masked(1, kSocketTypeMask, static_cast<unsigned>(type))});
    builder.add(kRefuse, "socket", {equals(0, family), masked(1, kSocketTypeMask, SOCK_RAW)});
  }
  if (has("netlink-route")) {
    allowed.push_back(AF_NETLINK);
    builder.add(kAllow, "socket", {equals(0, AF_NETLINK), equals(2, NETLINK_ROUTE)});
    builder.add(kRefuse, "socket", {equals(0, AF_NETLINK), differs(2, NETLINK_ROUTE)});
  }
  for (std::uint64_t family = AF_UNSPEC; family <= AF_NETLINK; ++family)
    if (std::find(allowed.begin(), allowed.end(), family) == allowed.end())
      builder.add(kRefuse, "socket", {equals(0, family)});
  builder.add(kRefuse, "socket", {atLeast(0, AF_NETLINK + 1)});
  builder.add(kAllow, "socketpair", {equals(0, AF_UNIX)});
}

void addProcess(Builder& builder) {
  if (kIsSanitized) {
    builder.add(kAllow, "clone");
  } else {
    builder.add(kAllow, "clone", {masked(0, CLONE_THREAD | kNamespaceFlags, CLONE_THREAD)});
    builder.add(kRefuse, "clone", {masked(0, CLONE_THREAD, 0)});
  }
  for (const char* name : {"kill", "tgkill"}) {
    builder.add(kAllow, name, {equals(0, SystemCallFilter::kSelf)});
    builder.add(kRefuse, name, {differs(0, SystemCallFilter::kSelf)});
  }
  builder.add(kAllow, "prlimit64", {equals(0, 0)});
  builder.add(kRefuse, "prlimit64", {differs(0, 0)});
}

void addMemory(Builder& builder) {
  constexpr std::uint64_t kWriteAndExecute = PROT_WRITE | PROT_EXEC;
  for (const std::uint64_t protection : {0, PROT_WRITE, PROT_EXEC})
    builder.add(kAllow, "mmap", {masked(2, kWriteAndExecute, protection)});
  builder.add(kRefuse, "mmap", {masked(2, kWriteAndExecute, kWriteAndExecute)});
  builder.add(kAllow, "mprotect", {masked(2, PROT_EXEC, 0)});
  builder.add(kRefuse, "mprotect", {masked(2, PROT_EXEC, PROT_EXEC)});
}

}  // namespace

Result<SystemCallFilter::Program> SystemCallFilter::compile(const Rules& rules) {
  Builder builder;
  addNamed(builder, rules);
  addSockets(builder, rules.socketFamilies);
  addProcess(builder);
  addMemory(builder);
  for (const std::uint64_t control : kControls) builder.add(kAllow, "ioctl", {equals(1, control)});
  return builder.compile();
}

std::optional<Error> SystemCallFilter::apply(std::span<const std::uint64_t> program) {
  std::vector<sock_filter> instructions(program.size());
  std::memcpy(instructions.data(), program.data(), program.size_bytes());
  for (sock_filter& instruction : instructions)
    if (BPF_CLASS(instruction.code) == BPF_JMP && instruction.k == kSelf)
      instruction.k = static_cast<std::uint32_t>(getpid());
  const sock_fprog filter = {static_cast<unsigned short>(instructions.size()), instructions.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &filter) != 0)
    return problem("cannot enter the system-call filter", errno);
  return std::nullopt;
}

}  // namespace tallow
