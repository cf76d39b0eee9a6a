#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>

namespace tallow {

// A process of its own, forked off, that says numbers until it ends or is killed. Made before the
// test has other threads.
class ChildProcess {
 public:
  using Say = std::function<void(std::int64_t)>;

  explicit ChildProcess(const std::function<void(const Say&)>& body) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || (_process = fork()) < 0) std::abort();
    if (_process == 0) {
      body([&](std::int64_t number) {
        if (write(ends[1], &number, sizeof number) != sizeof number) _exit(1);
      });
      _exit(0);
    }
    close(ends[1]);
    _said = ends[0];
  }
  ~ChildProcess() {
    kill(0);
    close(_said);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // What it says next; nothing when it is gone.
  std::optional<std::int64_t> next() const {
    std::int64_t number = 0;
    if (read(_said, &number, sizeof number) != sizeof number) return std::nullopt;
    return number;
  }
  // Kills it, at whatever it does. The last that it has said; `last` when there was no more.
  std::int64_t kill(std::int64_t last) {
    if (_process <= 0) return last;
    ::kill(_process, SIGKILL);
    waitpid(_process, nullptr, 0);
    _process = -1;
    while (const auto more = next()) last = *more;
    return last;
  }

 private:
  pid_t _process = -1;
  int _said = -1;
};

}  // namespace tallow
