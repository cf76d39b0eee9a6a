#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <seccomp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "tests/platform/Sandbox/SandboxFixture.h"

namespace tallow {
namespace {

using ::testing::HasSubstr;

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
  static std::string complaint(const char* profile = kProfile,
                               std::uint64_t flags = kSandboxNamed) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    {
      const Child child([&] {
        char* text = nullptr;
        if (sandbox_init(profile, flags, &text) != 0) {
          ASSERT_NE(text, nullptr);
          ASSERT_GT(write(ends[1], text, std::strlen(text)), 0);
        }
        sandbox_free_error(text);
      });
    }
    close(ends[1]);
    char text[1024];
    const ssize_t length = read(ends[0], text, sizeof(text));
    close(ends[0]);
    return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
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
