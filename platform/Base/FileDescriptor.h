#pragma once

#include <unistd.h>

#include <utility>

namespace tallow {

// Owns a file descriptor and closes it; -1 when it holds none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : _descriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : _descriptor(std::exchange(other._descriptor, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(_descriptor, other._descriptor);
    return *this;
  }
  ~FileDescriptor() {
    if (_descriptor >= 0) ::close(_descriptor);
  }

  explicit operator bool() const { return _descriptor >= 0; }
  int get() const { return _descriptor; }

 private:
  int _descriptor = -1;
};

}  // namespace tallow
