#pragma once

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

namespace tallow {

// A folder of its own for one test, gone with everything in it when the test ends.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tallow-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    _path = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;  // a test that took its own permissions away leaves the folder behind
    std::filesystem::remove_all(_path, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return _path; }

 private:
  std::filesystem::path _path;
};

}  // namespace tallow
