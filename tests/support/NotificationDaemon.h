#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/PrivateBus.h"
#include "tests/support/Program.h"

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
    setenv("DISPLAY", display().c_str(), 1);
    _daemon.emplace(std::vector<std::string>{"dunst", "-config", _folder / "dunstrc"}, -1, "",
                    /*isQuiet=*/true);
    while (bus.ownerOf(kName) == 0)
      if (!_daemon->runs()) throw std::runtime_error("dunst did not start");
  }
  ~NotificationDaemon() { stop(); }
  NotificationDaemon(const NotificationDaemon&) = delete;
  NotificationDaemon& operator=(const NotificationDaemon&) = delete;

  // Ends the daemon; returns when its name is free.
  void stop() {
    _daemon.reset();
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
    while (!std::filesystem::exists(seen)) Program::output("dunstctl context");
    return Program::output("cat " + seen.native());
  }
  // What the daemon itself lists of what it has shown, newest first, as JSON without spaces.
  static std::string history() { return Program::output("dunstctl history | tr -d '[:space:]'"); }
  static void close() { Program::output("dunstctl close"); }
  // In a picture of the screen; an empty one has one.
  long colours() const {
    return std::atol(Program::output("import -display " + display() +
                                     " -window root png:- | identify -format %k -")
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

  std::string display() const { return ":" + _screen.said().substr(0, _screen.said().find('\n')); }

  const PrivateBus& _bus;
  const std::filesystem::path _folder;
  const Program _screen{
      {"Xvfb", "-displayfd", "9", "-screen", "0", "800x600x24"}, 9, "\n", /*isQuiet=*/true};
  std::optional<Program> _daemon;
};

}  // namespace tallow
