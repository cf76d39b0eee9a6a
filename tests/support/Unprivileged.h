#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

namespace tallow {

// Makes permissions count for a test that root runs: while it lives, this process is nobody's, and
// `folder` with what is in it becomes so.
class Unprivileged {
 public:
  explicit Unprivileged(const std::filesystem::path& folder) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0) return;
    EXPECT_EQ(chown(folder.c_str(), kNobody, kNobody), 0);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
      EXPECT_EQ(chown(entry.path().c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(seteuid(kNobody), 0);
    _isRoot = true;
  }
  ~Unprivileged() {
    if (!_isRoot) return;
    EXPECT_EQ(seteuid(0), 0);
  }
  Unprivileged(const Unprivileged&) = delete;
  Unprivileged& operator=(const Unprivileged&) = delete;

 private:
  bool _isRoot = false;
};

}  // namespace tallow
