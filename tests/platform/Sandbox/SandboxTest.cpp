#include "platform/Sandbox/Sandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <netdb.h>
#include <netinet/in.h>
#include <seccomp.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Sanitizers.h"
#include "platform/Sandbox/LandlockRuleset.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ScopedDirectories.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

using ::testing::AnyOf;
using ::testing::Eq;
using ::testing::HasSubstr;

constexpr const char* kProfile = "com.vantor.tallowd";

// The errno of a call that failed, 0 when it did not.
template <class T>
int errorOf(T result) {
  return result == T(-1) ? errno : 0;
}

const ::testing::Matcher<int> kRefused = AnyOf(EPERM, EACCES);

bool kernelConfinesFiles() {
  return static_cast<bool>(LandlockRuleset::kernelVersion());
}

// Confines the process, as the service does it.
void confine() {
  char* text = nullptr;
  ASSERT_EQ(sandbox_init(kProfile, kSandboxNamed, &text), 0) << (text != nullptr ? text : "");
}

// A process of its own for what cannot be undone. Expectations in `body` count as usual; the end of
// this object waits for it. Made before the test has other threads.
class Child {
 public:
  explicit Child(const std::function<void()>& body) : _process(fork()) {
    if (_process < 0) std::abort();
    if (_process > 0) return;
    body();
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  ~Child() {
    int status = 0;
    EXPECT_GT(waitpid(_process, &status, 0), 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

 private:
  const pid_t _process;
};

// A service's folders in a temporary place, and files of others beside them.
class SandboxTest : public ::testing::Test {
 protected:
  SandboxTest() {
    for (const auto& folder : {_directories.configDirs[1] / "anchors",
                               _directories.dataDirs[1] / "sandbox", _folder / "others"})
      std::filesystem::create_directories(folder);
    std::ofstream(_directories.configDirs[1] / "readable") << "text";
    std::ofstream(_folder / "others/secret") << "text";
  }

  // Runs `body` in a process of its own that has confined itself.
  static void confined(const std::function<void()>& body) {
    const Child child([&] {
      confine();
      if (!::testing::Test::HasFatalFailure()) body();
    });
  }

  std::filesystem::path outside(const char* name) const { return _folder.path() / "others" / name; }
  std::filesystem::path systemProfile() const {
    return _directories.dataDirs[1] / "sandbox/com.vantor.tallowd.toml";
  }

  TemporaryFolder _folder;
  ScopedDirectories _directories{_folder.path()};
};

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
    EXPECT_THAT(errorOf(syscall(SYS_setuid, getuid())), kRefused);
    for (const long call :
         {SYS_mount, SYS_chroot, SYS_unshare, SYS_setns, SYS_setgroups, SYS_capset, SYS_pivot_root,
          SYS_move_mount,
          // Of the kernel and the machine.
          SYS_bpf, SYS_perf_event_open, SYS_keyctl, SYS_add_key, SYS_init_module, SYS_finit_module,
          SYS_kexec_load, SYS_reboot, SYS_userfaultfd, SYS_io_uring_setup, SYS_pidfd_getfd,
          SYS_open_by_handle_at, SYS_swapoff})
      EXPECT_THAT(errorOf(syscall(call, 0, 0, 0, 0, 0)), kRefused) << call;
    // Unknown ones look unknown: the C library then does without them.
    EXPECT_EQ(errorOf(syscall(SYS_clone3, nullptr, 0)), ENOSYS);
    EXPECT_EQ(errorOf(syscall(SYS_landlock_create_ruleset, nullptr, 0, 1)), ENOSYS);
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

constexpr const char* kMinimalProfile = R"(
format = 1
[files]
read = ["/usr", "/lib", "/lib64", "/proc", "$EXECUTABLE", "$CONFIG_DIRS", "$DATA_HOME/sub"]
write = ["$STATE_HOME/sub", "/nowhere"]
[network]
listen = true
socket-families = ["inet"]
[system-calls]
allow = ["exit_group", "write", "read", "open", "openat", "close", "newfstatat", "no_such_call",
         "rt_sigprocmask", "sigaltstack", "munmap", "madvise", "futex", "sched_yield"]
refuse = ["mkdir"]
)";

// Makes the listed calls fail from now on, as a kernel or a container without them does.
void withoutCalls(std::vector<int> calls, int code) {
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
  for (const int call : calls)
    ASSERT_EQ(seccomp_rule_add(filter, SCMP_ACT_ERRNO(static_cast<unsigned>(code)), call, 0), 0);
  ASSERT_EQ(seccomp_load(filter), 0);
  seccomp_release(filter);
}

class SandboxProfileTest : public SandboxTest {
 protected:
  // What sandbox_init says, tried out in a process of its own; "" when it is content.
  std::string complaint(const char* profile = kProfile, std::uint64_t flags = kSandboxNamed) {
    const std::filesystem::path said = _folder / "complaint";
    std::filesystem::remove(said);
    {
      const Child child([&] {
        char* text = nullptr;
        if (sandbox_init(profile, flags, &text) == 0) return;
        ASSERT_NE(text, nullptr);
        std::ofstream(said) << text;
        sandbox_free_error(text);
      });
    }
    const auto text = readFile(said);
    return text ? std::string(text->view()) : "";
  }

  // The complaint about the minimal profile with one text in it replaced.
  std::string complaintAbout(const std::string& from, const std::string& to) {
    std::string text = kMinimalProfile;
    text.replace(text.find(from), from.size(), to);
    std::ofstream(systemProfile()) << text;
    return complaint();
  }
};

TEST_F(SandboxProfileTest, RunsInsideAnotherSandbox) {
  const Child child([&] {
    if (kernelConfinesFiles()) {
      const LandlockRuleset::Rules rules = {{"/"}, {_folder.path(), "/dev"}, false, true};
      ASSERT_FALSE(LandlockRuleset::apply(rules, *LandlockRuleset::kernelVersion()));
    }
    withoutCalls({SCMP_SYS(ptrace), SCMP_SYS(mount)}, EPERM);
    confine();
    EXPECT_FALSE(writeFileAtomically(_directories.stateHome / "file", Data()));
    if (kernelConfinesFiles()) {
      EXPECT_FALSE(readFile(outside("secret")));
    }
  });
}

TEST_F(SandboxProfileTest, AKernelWithoutLandlockIsNoError) {
  for (const int code : {ENOSYS, EOPNOTSUPP, EPERM}) {
    const Child child([&] {
      withoutCalls({SCMP_SYS(landlock_create_ruleset)}, code);
      const CapturedLog log;
      confine();
      EXPECT_TRUE(log.mentions(1, "Sandbox: Files are not confined"));
      EXPECT_EQ(errorOf(execl("/usr/bin/true", "true", nullptr)), EPERM);
    });
  }
}

TEST_F(SandboxProfileTest, AKernelThatRefusesIsAnError) {
  const Child child([&] {
    withoutCalls({SCMP_SYS(landlock_restrict_self), SCMP_SYS(seccomp)}, EINVAL);
    char* text = nullptr;
    EXPECT_EQ(sandbox_init(kProfile, kSandboxNamed, &text), -1);
    ASSERT_NE(text, nullptr);
    EXPECT_THAT(text, HasSubstr(kernelConfinesFiles() ? "Landlock" : "system-call filter"));
    sandbox_free_error(text);
  });
}

TEST_F(SandboxProfileTest, UnknownProfilesAndFlagsAreErrors) {
  EXPECT_THAT(complaint("com.vantor.other"), HasSubstr("com.vantor.other"));
  EXPECT_NE(complaint("../com.vantor.tallowd"), "");
  EXPECT_NE(complaint(""), "");
  EXPECT_NE(complaint(nullptr), "");
  EXPECT_NE(complaint(kProfile, 0), "");
  EXPECT_NE(complaint(kProfile, 2), "");
  sandbox_free_error(nullptr);
}

TEST_F(SandboxProfileTest, TheSystemsProfileReplacesTheBuiltInOne) {
  std::ofstream(systemProfile()) << kMinimalProfile;
  confined([&] {
    EXPECT_EQ(errorOf(syscall(SYS_getppid)), ENOSYS);
    EXPECT_EQ(errorOf(listen(socket(AF_INET, SOCK_STREAM, 0), 1)), 0);
    EXPECT_EQ(errorOf(socket(AF_UNIX, SOCK_STREAM, 0)), EPERM);
    EXPECT_EQ(errorOf(mkdir("/tmp/x", 0700)), EPERM);
    const auto file = [](const std::filesystem::path& path) {
      return errorOf(open(path.c_str(), O_CREAT | O_RDWR, 0600));
    };
    EXPECT_EQ(file(_directories.stateHome / "sub/file"), 0);
    if (kernelConfinesFiles()) {
      EXPECT_EQ(file(_directories.stateHome / "file"), EACCES);
    }
  });
  // The user's own folder, where a confined service may write, does not count.
  std::filesystem::create_directories(_directories.dataHome / "sandbox");
  std::filesystem::rename(systemProfile(),
                          _directories.dataHome / "sandbox/com.vantor.tallowd.toml");
  confined([] { EXPECT_GT(getppid(), 0); });
}

TEST_F(SandboxProfileTest, SaysWhatIsWrongWithAProfile) {
  EXPECT_THAT(complaintAbout("format = 1", "format = 2"), HasSubstr("format"));
  EXPECT_THAT(complaintAbout("format = 1", "format = "), HasSubstr("malformed"));
  EXPECT_THAT(complaintAbout("format = 1\n", "format = 1\nfile = []\n"), HasSubstr("\"file\""));
  EXPECT_THAT(complaintAbout("[network]", "[networks]"), HasSubstr("networks"));
  EXPECT_THAT(complaintAbout("listen = true\n", ""), HasSubstr("\"listen\""));
  EXPECT_THAT(complaintAbout("listen = true", "listen = 1"), HasSubstr("\"listen\""));
  EXPECT_THAT(complaintAbout("\"inet\"", "\"packet\""), HasSubstr("packet"));
  EXPECT_THAT(complaintAbout("\"mkdir\"", "1"), HasSubstr("\"refuse\""));
  EXPECT_THAT(complaintAbout("[\"mkdir\"]", "\"mkdir\""), HasSubstr("\"refuse\""));
  EXPECT_THAT(complaintAbout("\"mkdir\"", "\"read\""), HasSubstr("system call read"));
  EXPECT_THAT(complaintAbout("\"/usr\"", "\"usr\""), HasSubstr("\"usr\""));
  EXPECT_THAT(complaintAbout("$CONFIG_DIRS", "$HOME"), HasSubstr("$HOME"));
  std::ofstream(systemProfile(), std::ios::trunc) << "";
  EXPECT_THAT(complaint(), HasSubstr("malformed"));
  std::filesystem::remove(systemProfile());
  std::filesystem::create_directory(systemProfile());
  EXPECT_THAT(complaint(), HasSubstr(systemProfile().string()));
}

}  // namespace
}  // namespace tallow
