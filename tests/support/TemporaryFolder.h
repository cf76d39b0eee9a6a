#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace tallow {

// A folder of a test's own; goes, with all that is in it, when this object does.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = std::filesystem::temp_directory_path() / "tallow-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    _path = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return _path; }
  std::filesystem::path operator/(const std::filesystem::path& name) const { return _path / name; }

 private:
  std::filesystem::path _path;
};

}  // namespace tallow
