#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tallow {

// A bus daemon of the test's own, started by the constructor and ended by the destructor. While it
// lives it is this process's session bus, and its system bus too (in the environment, so make it
// before other threads start).
class PrivateBus {
 public:
  // `serviceFolders` hold the .service files of what it may start. With a `policy`, the text of a
  // file for system.d, it is a bus for all users on which everything else is denied, as a system
  // bus denies it.
  explicit PrivateBus(const std::vector<std::filesystem::path>& serviceFolders = {},
                      const std::string& policy = {}) {
    char folder[] = "/tmp/tallow-bus-XXXXXX";
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("no folder for the bus");
    _folder = folder;
    if (!policy.empty()) std::filesystem::permissions(_folder, std::filesystem::perms{0755});
    _writeConfiguration(serviceFolders, policy);
    start();
    setenv("DBUS_SESSION_BUS_ADDRESS", _address.c_str(), 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", _address.c_str(), 1);
  }
  ~PrivateBus() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(_folder, ignored);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return _address; }
  // A folder of the bus's own, gone with it. It looks for .service files in "services" there, too.
  const std::filesystem::path& folder() const { return _folder; }
  pid_t pid() const { return _pid; }

  // The process behind a name, 0 when nobody has it.
  pid_t ownerOf(const std::string& name) const {
    const std::string command = "dbus-send --bus=" + _address +
                                " --print-reply=literal --dest=org.freedesktop.DBus / "
                                "org.freedesktop.DBus.GetConnectionUnixProcessID string:" +
                                name + " 2>/dev/null";
    FILE* const answer = popen(command.c_str(), "r");
    if (answer == nullptr) throw std::runtime_error("no dbus-send");
    long pid = 0;
    if (std::fscanf(answer, " uint32 %ld", &pid) != 1) pid = 0;
    pclose(answer);
    return static_cast<pid_t>(pid);
  }
  // Returns once nobody has the name.
  void waitUntilUnowned(const std::string& name) const {
    while (ownerOf(name) != 0) {
    }
  }

  // Starts it again after stop(), where it was.
  void start() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe to the bus");
    _start(ends[1]);
    close(ends[1]);
    const std::string address = _readLine(ends[0]);
    close(ends[0]);
    if (address.empty()) throw std::runtime_error("dbus-daemon did not start");
    // Without the mark of this one daemon, so that it holds for the next as well.
    _address = address.substr(0, address.find(','));
  }
  // Makes it read its service folders again.
  void reload() const {
    const std::string command = "dbus-send --bus=" + _address +
                                " --print-reply --dest=org.freedesktop.DBus / "
                                "org.freedesktop.DBus.ReloadConfig >/dev/null";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("the bus does not reload");
  }

  // Ends the bus early: every connection is cut.
  void stop() {
    if (_pid <= 0) return;
    kill(_pid, SIGTERM);
    waitpid(_pid, nullptr, 0);
    _pid = -1;
  }

 private:
  void _writeConfiguration(const std::vector<std::filesystem::path>& serviceFolders,
                           const std::string& policy) const {
    std::ofstream file(_folder / "bus.conf");
    file << "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'\n"
            " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
            "<busconfig>\n  <type>session</type>\n  <listen>unix:path="
         << (_folder / "bus").string() << "</listen>\n";
    std::filesystem::create_directory(_folder / "services");
    file << "  <servicedir>" << (_folder / "services").string() << "</servicedir>\n";
    for (const auto& folder : serviceFolders)
      file << "  <servicedir>" << folder.string() << "</servicedir>\n";
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

  void _start(int addressFile) {
    const std::string configuration = "--config-file=" + (_folder / "bus.conf").string();
    const std::string print = "--print-address=" + std::to_string(addressFile);
    const pid_t parent = getpid();
    _pid = fork();
    if (_pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    fcntl(addressFile, F_SETFD, 0);
    execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nosyslog", configuration.c_str(),
           print.c_str(), nullptr);
    _exit(127);
  }

  static std::string _readLine(int file) {
    std::string line;
    for (char character = 0; read(file, &character, 1) == 1 && character != '\n';)
      line += character;
    return line;
  }

  std::filesystem::path _folder;
  std::string _address;
  pid_t _pid = -1;
};

}  // namespace tallow
