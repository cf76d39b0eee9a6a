#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Program.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {

// A bus daemon of the test's own, started by the constructor and ended by the destructor. While it
// lives it is this process's session bus, and its system bus too (in the environment, so make it
// before other threads start).
class PrivateBus {
 public:
  // With a `policy`, the text of a file for system.d, it is a bus for all users on which everything
  // else is denied, as a system bus denies it.
  explicit PrivateBus(const std::string& policy = {}) {
    if (!policy.empty()) std::filesystem::permissions(folder(), std::filesystem::perms{0755});
    _writeConfiguration(policy);
    start();
    setenv("DBUS_SESSION_BUS_ADDRESS", _address.c_str(), 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", _address.c_str(), 1);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return _address; }
  // A folder of the bus's own, gone with it. It looks for .service files in "services" there.
  const std::filesystem::path& folder() const { return _folder.path(); }

  // The process behind a name, 0 when nobody has it.
  pid_t ownerOf(const std::string& name) const {
    const std::string answer =
        Program::output("dbus-send --bus=" + _address +
                        " --print-reply=literal --dest=org.freedesktop.DBus / "
                        "org.freedesktop.DBus.GetConnectionUnixProcessID string:" +
                        name);
    pid_t process = 0;
    return std::sscanf(answer.c_str(), " uint32 %d", &process) == 1 ? process : 0;
  }
  // Returns once nobody has the name.
  void waitUntilUnowned(const std::string& name) const {
    while (ownerOf(name) != 0) {
    }
  }

  // Starts it again after stop(), where it was.
  void start() {
    _daemon.emplace(std::vector<std::string>{"dbus-daemon", "--nofork", "--nosyslog",
                                             "--config-file=" + (folder() / "bus.conf").string(),
                                             "--print-address=9"},
                    9);
    // Without the mark of this one daemon, so that it holds for the next as well.
    _address = _daemon->said().substr(0, _daemon->said().find(','));
  }
  // Lets it start services, each given with its name, by their commands.
  void mayStart(const std::vector<std::pair<std::string, std::string>>& services) const {
    for (const auto& [name, command] : services)
      std::ofstream(_folder / "services" / (name + ".service"))
          << "[D-BUS Service]\nName=" << name << "\nExec=" << command << "\n";
    reload();
  }
  // Makes it read its service folder again.
  void reload() const {
    const std::string command = "dbus-send --bus=" + _address +
                                " --print-reply --dest=org.freedesktop.DBus / "
                                "org.freedesktop.DBus.ReloadConfig >/dev/null";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("the bus does not reload");
  }

  // So many calls of a connection may be unanswered at a time from now on.
  void limitUnansweredCalls(int most) const {
    std::ostringstream text;
    text << std::ifstream(folder() / "bus.conf").rdbuf();
    const std::string configuration = text.str();
    const std::string limit = "<limit name='max_replies_per_connection'>";
    const std::size_t number = configuration.find(limit) + limit.size();
    std::ofstream(folder() / "bus.conf") << configuration.substr(0, number) << most
                                         << configuration.substr(configuration.find('<', number));
    reload();
  }

  // Ends the bus early: every connection is cut.
  void stop() { _daemon.reset(); }

 private:
  void _writeConfiguration(const std::string& policy) const {
    std::ofstream file(_folder / "bus.conf");
    file << "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'\n"
            " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
            "<busconfig>\n  <type>session</type>\n  <listen>unix:path="
         << (_folder / "bus").string() << "</listen>\n  <servicedir>"
         << (_folder / "services").string() << "</servicedir>\n";
    std::filesystem::create_directory(_folder / "services");
    if (policy.empty()) {
      file << "  <policy context='default'>\n"
              "    <allow send_destination='*' eavesdrop='true'/>\n"
              "    <allow eavesdrop='true'/>\n    <allow own='*'/>\n  </policy>\n";
    } else {
      file << "  <policy context='default'>\n    <allow user='*'/>\n    <deny own='*'/>\n"
              "    <deny send_type='method_call'/>\n    <allow send_type='signal'/>\n"
              "    <allow send_requested_reply='true' send_type='method_return'/>\n"
              "    <allow send_requested_reply='true' send_type='error'/>\n"
              "    <allow receive_type='method_call'/>\n"
              "    <allow receive_type='method_return'/>\n"
              "    <allow receive_type='error'/>\n    <allow receive_type='signal'/>\n"
              "    <allow send_destination='org.freedesktop.DBus'/>\n  </policy>\n"
              "  <include>policy.conf</include>\n";
      std::ofstream(_folder / "policy.conf") << policy;
    }
    file << "  <limit name='max_connections_per_user'>2000</limit>\n"
            "  <limit name='max_replies_per_connection'>50000</limit>\n"
            "  <limit name='reply_timeout'>600000</limit>\n</busconfig>\n";
  }

  const TemporaryFolder _folder;
  std::string _address;
  std::optional<Program> _daemon;
};

}  // namespace tallow
