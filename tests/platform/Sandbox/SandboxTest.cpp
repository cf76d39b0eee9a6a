#include "platform/Sandbox/Sandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Sanitizers.h"
#include "tests/platform/Sandbox/SandboxFixture.h"

namespace tallow {
namespace {

using ::testing::AnyOf;
using ::testing::Eq;

TEST_F(SandboxTest, LeavesOnlyTheServicesOwnFilesToWrite) {
  if (!kernelConfinesFiles()) GTEST_SKIP() << "this kernel has no Landlock";
  confined([&] {
    for (const auto& own : {_directories.configHome, _directories.dataHome, _directories.cacheHome,
                            _directories.stateHome}) {
      const std::string file = own / "folder/file";
      EXPECT_TRUE(ensureDirectoryExists(own / "folder")) << own;
      EXPECT_FALSE(writeFileAtomically(file, Data(std::string_view("text")))) << own;
      EXPECT_TRUE(readFile(file)) << own;
      EXPECT_EQ(errorOf(truncate(file.c_str(), 1)), 0);
      EXPECT_EQ(errorOf(rename(file.c_str(), (own / "file").c_str())), 0);
      EXPECT_EQ(errorOf(unlink((own / "file").c_str())), 0);
      EXPECT_EQ(errorOf(rmdir((own / "folder").c_str())), 0);
    }
    EXPECT_EQ(errorOf(open("/dev/null", O_WRONLY | O_TRUNC)), 0);

    const std::string secret = outside("secret");
    EXPECT_THAT(errorOf(open(secret.c_str(), O_RDONLY)), kRefused);
    EXPECT_THAT(errorOf(open(secret.c_str(), O_WRONLY)), kRefused);
    EXPECT_THAT(errorOf(open(outside("").c_str(), O_RDONLY | O_DIRECTORY)), kRefused);
    EXPECT_THAT(errorOf(open(outside("new").c_str(), O_CREAT | O_WRONLY, 0600)), kRefused);
    EXPECT_THAT(errorOf(truncate(secret.c_str(), 0)), kRefused);
    EXPECT_THAT(errorOf(unlink(secret.c_str())), kRefused);
    EXPECT_THAT(errorOf(mkdir(outside("folder").c_str(), 0700)), kRefused);
    // No way round through the service's own folder either.
    const std::string own = _directories.dataHome / "secret";
    EXPECT_NE(errorOf(rename(secret.c_str(), own.c_str())), 0);
    EXPECT_NE(errorOf(link(secret.c_str(), own.c_str())), 0);
    EXPECT_NE(errorOf(symlink(secret.c_str(), own.c_str())), 0);

    const std::string readable = _directories.configDirs[1] / "readable";
    EXPECT_TRUE(readFile(readable));
    EXPECT_THAT(errorOf(open(readable.c_str(), O_WRONLY)), kRefused);
    EXPECT_THAT(errorOf(unlink(readable.c_str())), kRefused);
  });
  EXPECT_EQ(std::filesystem::file_size(outside("secret")), 4U);
}

TEST_F(SandboxTest, LeavesTheSystemsFilesToRead) {
  const std::string caller = "/proc/" + std::to_string(getpid());
  confined([&] {
    for (const std::string& path :
         {std::string("/etc/passwd"), std::string("/etc/nsswitch.conf"), std::string("/usr/share"),
          std::string("/etc/ssl/certs"), std::string("/proc/self/status"), caller + "/cgroup",
          caller + "/status", std::string("/dev/urandom")})
      // A system may have no certificates: what counts is that nothing is closed.
      EXPECT_THAT(errorOf(open(path.c_str(), O_RDONLY)), AnyOf(Eq(0), Eq(ENOENT))) << path;
    EXPECT_THAT(errorOf(open("/etc/passwd", O_WRONLY)), AnyOf(kRefused, Eq(EROFS)));
  });
}

TEST_F(SandboxTest, StartsAndTouchesNoOtherProcess) {
  const pid_t parent = getpid();
  static char secret[8] = "secret";
  confined([&] {
    char* const arguments[] = {const_cast<char*>("true"), nullptr};
    char* const environment[] = {nullptr};
    EXPECT_THAT(errorOf(execve("/usr/bin/true", arguments, environment)), kRefused);
    EXPECT_THAT(
        errorOf(syscall(SYS_execveat, AT_FDCWD, "/usr/bin/true", arguments, environment, 0)),
        kRefused);
    pid_t started = 0;
    EXPECT_NE(posix_spawn(&started, "/usr/bin/true", nullptr, nullptr, arguments, environment), 0);
    EXPECT_THAT(errorOf(ptrace(PTRACE_ATTACH, parent, nullptr, nullptr)), kRefused);
    char buffer[8];
    const iovec local = {buffer, sizeof(buffer)};
    const iovec remote = {secret, sizeof(secret)};
    EXPECT_THAT(errorOf(process_vm_readv(parent, &local, 1, &remote, 1, 0)), kRefused);
    EXPECT_THAT(errorOf(process_vm_writev(parent, &local, 1, &remote, 1, 0)), kRefused);
    EXPECT_THAT(errorOf(open(("/proc/" + std::to_string(parent) + "/mem").c_str(), O_RDWR)),
                kRefused);
    EXPECT_THAT(errorOf(kill(parent, 0)), kRefused);
    EXPECT_THAT(errorOf(syscall(SYS_tgkill, parent, parent, 0)), kRefused);
    EXPECT_NE(errorOf(syscall(SYS_tkill, parent, 0)), 0);
    EXPECT_NE(errorOf(syscall(SYS_rt_tgsigqueueinfo, parent, parent, 0, nullptr)), 0);
    EXPECT_EQ(errorOf(kill(getpid(), 0)), 0);
    EXPECT_EQ(errorOf(raise(0)), 0);
    rlimit limit = {};
    EXPECT_EQ(errorOf(getrlimit(RLIMIT_NOFILE, &limit)), 0);
    EXPECT_THAT(errorOf(prlimit(parent, RLIMIT_NOFILE, nullptr, &limit)), kRefused);
  });
}

TEST_F(SandboxTest, ForksAndTracesNothing) {
  // These calls stay open for the leak checker.
  if (kIsSanitized) GTEST_SKIP() << "refused in a build without sanitizers only";
  confined([] {
    EXPECT_THAT(errorOf(fork()), kRefused);
    EXPECT_THAT(errorOf(syscall(SYS_vfork)), kRefused);
    EXPECT_THAT(errorOf(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)), kRefused);
    EXPECT_THAT(errorOf(syscall(SYS_personality, 0xffffffff)), kRefused);
  });
}

TEST_F(SandboxTest, ConnectsAndNeverListens) {
  sockaddr_in any = {};
  any.sin_family = AF_INET;
  any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in taken = any;
  const auto generic = [](sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); };
  socklen_t length = sizeof(taken);
  const FileDescriptor server(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(bind(server.get(), generic(taken), length), 0);
  ASSERT_EQ(listen(server.get(), 1), 0);
  ASSERT_EQ(getsockname(server.get(), generic(taken), &length), 0);
  const Child child([&] {
    const int bound = socket(AF_INET, SOCK_STREAM, 0);
    const Result<int> version = LandlockRuleset::kernelVersion();
    const bool confinesPorts = version && *version >= 4;
    confine();
    if (confinesPorts) {
      EXPECT_THAT(errorOf(bind(bound, generic(any), length)), kRefused);
    }
    const int listener = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_GE(listener, 0);
    EXPECT_THAT(errorOf(listen(listener, 1)), kRefused);
    EXPECT_THAT(errorOf(accept(listener, nullptr, nullptr)), kRefused);
    EXPECT_EQ(errorOf(connect(socket(AF_INET, SOCK_STREAM, 0), generic(taken), length)), 0);
    EXPECT_EQ(errorOf(connect(socket(AF_INET, SOCK_DGRAM, 0), generic(taken), length)), 0);
  });
}

TEST_F(SandboxTest, KnowsFewKindsOfSockets) {
  confined([] {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_SEQPACKET}) {
      int ends[2];
      EXPECT_EQ(errorOf(socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends)), 0);
    }
    EXPECT_EQ(errorOf(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), 0);
    EXPECT_THAT(errorOf(socket(AF_NETLINK, SOCK_RAW, NETLINK_AUDIT)), kRefused);
    EXPECT_THAT(errorOf(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)), kRefused);
    for (const int family : {AF_UNSPEC, AF_AX25, AF_APPLETALK, AF_KEY, AF_PACKET, AF_BLUETOOTH,
                             AF_ALG, AF_VSOCK, AF_XDP, 1000})
      EXPECT_THAT(errorOf(socket(family, SOCK_DGRAM, 0)), kRefused) << family;
    EXPECT_THAT(errorOf(syscall(SYS_socket, AF_INET | (1L << 32), SOCK_STREAM, 0)), kRefused);
    addrinfo* found = nullptr;
    EXPECT_EQ(getaddrinfo("localhost", "80", nullptr, &found), 0);
    freeaddrinfo(found);
  });
}

TEST_F(SandboxTest, RefusesWhatReachesTheKernelAndTheMachine) {
  confined([] {
    EXPECT_EQ(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0), 1);
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3] = {};
    EXPECT_EQ(errorOf(syscall(SYS_capget, &header, &held[0])), 0);
    for (const auto& half : held) EXPECT_EQ(half.permitted | half.effective | half.inheritable, 0U);
    EXPECT_THAT(errorOf(mount("none", "/mnt", "tmpfs", 0, nullptr)), kRefused);
    EXPECT_THAT(errorOf(chroot("/")), kRefused);
    EXPECT_THAT(errorOf(unshare(CLONE_NEWUSER)), kRefused);
    EXPECT_THAT(errorOf(setns(0, 0)), kRefused);
    EXPECT_THAT(errorOf(syscall(SYS_setuid, getuid())), kRefused);
    EXPECT_THAT(errorOf(syscall(SYS_setgroups, 0, nullptr)), kRefused);
    for (const long call :
         {SYS_bpf, SYS_perf_event_open, SYS_keyctl, SYS_add_key, SYS_init_module, SYS_finit_module,
          SYS_kexec_load, SYS_reboot, SYS_userfaultfd, SYS_io_uring_setup, SYS_move_mount,
          SYS_pidfd_getfd, SYS_open_by_handle_at, SYS_swapoff, SYS_capset, SYS_pivot_root})
      EXPECT_THAT(errorOf(syscall(call, 0, 0, 0, 0, 0)), kRefused) << call;
    EXPECT_NE(errorOf(ioctl(0, TIOCSTI, "x")), 0);
  });
}

TEST_F(SandboxTest, KeepsWritableMemoryFromBecomingCode) {
  confined([] {
    const auto map = [](int protection) {
      return mmap(nullptr, 4096, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    };
    EXPECT_THAT(errorOf(map(PROT_READ | PROT_WRITE | PROT_EXEC)), kRefused);
    EXPECT_EQ(errorOf(map(PROT_READ | PROT_EXEC)), 0);
    void* page = map(PROT_READ | PROT_WRITE);
    EXPECT_EQ(errorOf(page), 0);
    EXPECT_THAT(errorOf(mprotect(page, 4096, PROT_READ | PROT_EXEC)), kRefused);
    EXPECT_EQ(errorOf(mprotect(page, 4096, PROT_READ)), 0);
    EXPECT_THAT(errorOf(memfd_create("code", MFD_CLOEXEC)), kRefused);
  });
}

TEST_F(SandboxTest, UnknownCallsLookUnknown) {
  confined([] {
    // The C library then does without them.
    EXPECT_EQ(errorOf(syscall(SYS_clone3, nullptr, 0)), ENOSYS);
    EXPECT_EQ(errorOf(syscall(SYS_landlock_create_ruleset, nullptr, 0, 1)), ENOSYS);
  });
}

}  // namespace
}  // namespace tallow
