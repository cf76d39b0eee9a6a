#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Sandbox/LandlockRuleset.h"
#include "platform/Sandbox/Sandbox.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {

inline constexpr const char* kProfile = "com.vantor.tallowd";

// The errno of a call that failed, 0 when it did not.
template <class T>
int errorOf(T result) {
  return result == T(-1) ? errno : 0;
}

inline const ::testing::Matcher<int> kRefused = ::testing::AnyOf(EPERM, EACCES);

inline bool kernelConfinesFiles() {
  return static_cast<bool>(LandlockRuleset::kernelVersion());
}

// Confines the process, as the service does it.
inline void confine() {
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
    const std::filesystem::path root = _folder.path();
    _directories.configHome = root / "config/tallowd";
    _directories.dataHome = root / "data/tallowd";
    _directories.cacheHome = root / "cache/tallowd";
    _directories.stateHome = root / "state/tallowd";
    _directories.configDirs = {_directories.configHome, root / "xdg/tallowd"};
    _directories.dataDirs = {_directories.dataHome, root / "share/tallowd"};
    std::filesystem::create_directories(root / "xdg/tallowd/anchors");
    std::filesystem::create_directories(root / "share/tallowd/sandbox");
    std::filesystem::create_directories(root / "others");
    std::ofstream(root / "xdg/tallowd/readable") << "text";
    std::ofstream(root / "others/secret") << "text";
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
  Directories _directories;
  ScopedShared<Directories> _sharedDirectories{_directories};
};

}  // namespace tallow
