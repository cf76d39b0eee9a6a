#pragma once

#include <sys/resource.h>

#include <csignal>

namespace tallow {

// While it lives, every write of this process past `bytes` of a file fails, as on a full disk;
// root's too.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes = 0) : _handler(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &_before);
    const rlimit limit{bytes, _before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &_before);
    std::signal(SIGXFSZ, _handler);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit _before{};
  void (*_handler)(int);
};

}  // namespace tallow
