#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace tallow {

// A program that runs beside the test, and ends when this object does, or the test.
class Program {
 public:
  // Where it says something on descriptor `saysOn` when it has started, waits for that: for all up
  // to and including `last`.
  explicit Program(const std::vector<std::string>& command, int saysOn = -1,
                   const std::string& last = "\n", bool isQuiet = false) {
    std::vector<char*> arguments;
    for (const std::string& each : command) arguments.push_back(const_cast<char*>(each.c_str()));
    arguments.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const pid_t parent = getpid();
    _process = fork();
    if (_process == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (getppid() != parent) _exit(1);
      if (saysOn >= 0) dup2(ends[1], saysOn);
      if (saysOn == ends[1]) fcntl(saysOn, F_SETFD, 0);  // onto itself leaves it to be closed
      const int nowhere = isQuiet ? open("/dev/null", O_WRONLY | O_CLOEXEC) : -1;
      if (isQuiet) dup2(nowhere, STDOUT_FILENO);
      if (isQuiet) dup2(nowhere, STDERR_FILENO);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    close(ends[1]);
    for (char c = 0; saysOn >= 0 && !_said.ends_with(last) && read(ends[0], &c, 1) == 1;)
      _said += c;
    close(ends[0]);
    if (saysOn < 0 || _said.ends_with(last)) return;
    end();
    throw std::runtime_error(command.front() + " did not start");
  }
  ~Program() { end(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  const std::string& said() const { return _said; }
  bool runs() const { return waitpid(_process, nullptr, WNOHANG) == 0; }
  void end(int signal = SIGTERM) {
    if (_process <= 0) return;
    kill(_process, signal);
    waitpid(_process, nullptr, 0);
    _process = -1;
  }

  // What a shell command prints, errors too.
  static std::string output(const std::string& command) {
    FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error(command);
    std::string text;
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) text += static_cast<char>(c);
    pclose(pipe);
    return text;
  }

 private:
  pid_t _process = -1;
  std::string _said;
};

}  // namespace tallow
