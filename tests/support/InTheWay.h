#pragma once

#include <filesystem>
#include <utility>

namespace tallow {

// While it lives, a folder is where the file was: it can be neither opened nor made.
class InTheWay {
 public:
  explicit InTheWay(std::filesystem::path file) : _file(std::move(file)), _aside(_file) {
    _aside += ".aside";
    std::filesystem::rename(_file, _aside);
    std::filesystem::create_directory(_file);
  }
  ~InTheWay() {
    std::filesystem::remove(_file);
    std::filesystem::rename(_aside, _file);
  }
  InTheWay(const InTheWay&) = delete;
  InTheWay& operator=(const InTheWay&) = delete;

 private:
  const std::filesystem::path _file;
  std::filesystem::path _aside;
};

}  // namespace tallow
