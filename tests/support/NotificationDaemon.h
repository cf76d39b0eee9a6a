#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/PrivateBus.h"

namespace tallow {

// dunst, a notification daemon as desktops have them, under a virtual display of its own, on the
// private bus. What it shows is asked of it with its own tools; its menu of actions is a script
// that lists them in a file and chooses one.
class NotificationDaemon {
 public:
  static constexpr const char* kName = "org.freedesktop.Notifications";
  // How long it shows what is not urgent: no test is slower.
  static constexpr int kTimeoutSeconds = 600;

  explicit NotificationDaemon(const PrivateBus& bus) : _bus(bus), _folder(bus.folder() / "dunst") {
    std::filesystem::create_directories(_folder);
    std::ofstream(_folder / "dunstrc")
        << "[global]\n    dmenu = " << menu().native()
        << "\n[urgency_normal]\n    timeout = " << kTimeoutSeconds << "\n";
    _display = _startDisplay();
    setenv("DISPLAY", _display.c_str(), 1);
    _daemon = _start({"dunst", "-config", _folder / "dunstrc"}, -1);
    while (bus.ownerOf(kName) == 0)
      if (waitpid(_daemon, nullptr, WNOHANG) != 0) throw std::runtime_error("dunst did not start");
  }
  ~NotificationDaemon() {
    stop();
    _end(_xvfb);
  }
  NotificationDaemon(const NotificationDaemon&) = delete;
  NotificationDaemon& operator=(const NotificationDaemon&) = delete;

  // Ends the daemon; returns when its name is free.
  void stop() {
    _end(_daemon);
    _bus.waitUntilUnowned(kName);
  }
  // Has the person choose the action, given as "TITLE (SUMMARY)". The result is all that the menu
  // offered.
  std::string choose(const std::string& action) const {
    const std::filesystem::path seen = _folder / "menu";
    std::filesystem::remove(seen);
    // The script, named anew each time, waits until it has been read.
    std::ofstream(menu()) << "#!/bin/sh\ncat >" << seen.native() << ".new\n"
                          << "mv " << seen.native() << ".new " << seen.native() << "\n"
                          << "grep -F '#" << action << "' " << seen.native() << "\n";
    std::filesystem::permissions(menu(), std::filesystem::perms::owner_all);
    // Refused while the menu before it is still being closed.
    while (!std::filesystem::exists(seen)) output("dunstctl context");
    return output("cat " + seen.native());
  }
  // What the daemon itself lists of what it has shown, newest first, as JSON without spaces.
  static std::string history() { return output("dunstctl history | tr -d '[:space:]'"); }
  static void close() { output("dunstctl close"); }
  // In a picture of the screen; an empty one has one.
  long colours() const {
    return std::atol(
        output("import -display " + _display + " -window root png:- | identify -format %k -")
            .c_str());
  }
  // Takes pictures until there is something in one; false when there never is.
  bool showsSomething() const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end)
      if (colours() > 1) return true;
    return false;
  }

 private:
  std::filesystem::path menu() const { return _folder / "menu.sh"; }

  static std::string output(const std::string& command) {
    FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error(command);
    std::string text;
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) text += static_cast<char>(c);
    pclose(pipe);
    return text;
  }

  std::string _startDisplay() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    _xvfb = _start({"Xvfb", "-displayfd", "9", "-screen", "0", "800x600x24"}, ends[1]);
    ::close(ends[1]);
    std::string number;
    for (char c = 0; read(ends[0], &c, 1) == 1 && c != '\n';) number += c;
    ::close(ends[0]);
    if (number.empty()) throw std::runtime_error("Xvfb did not start");
    return ":" + number;
  }
  // With `given` as descriptor 9.
  static pid_t _start(const std::vector<std::string>& command, int given) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (given >= 0) dup2(given, 9);
    if (given == 9) fcntl(9, F_SETFD, 0);  // duplicating onto itself leaves it to be closed
    const int quiet = open("/dev/null", O_WRONLY);
    dup2(quiet, 1);
    dup2(quiet, 2);
    std::vector<char*> arguments;
    for (const std::string& each : command) arguments.push_back(const_cast<char*>(each.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  static void _end(pid_t& pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    pid = -1;
  }

  const PrivateBus& _bus;
  const std::filesystem::path _folder;
  std::string _display;
  pid_t _xvfb = -1;
  pid_t _daemon = -1;
};

}  // namespace tallow
