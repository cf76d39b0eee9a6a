#pragma once

#include <sys/resource.h>

namespace tallow {

// While it lives, this process can open no more files (EMFILE); those that are open stay so. A
// sanitizer needs some where it sees a type of object for the first time: let that be before.
class NoMoreFiles {
 public:
  NoMoreFiles() {
    getrlimit(RLIMIT_NOFILE, &_before);
    const rlimit none{0, _before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoMoreFiles() { setrlimit(RLIMIT_NOFILE, &_before); }
  NoMoreFiles(const NoMoreFiles&) = delete;
  NoMoreFiles& operator=(const NoMoreFiles&) = delete;

 private:
  rlimit _before{};
};

}  // namespace tallow
