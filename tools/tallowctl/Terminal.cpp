#include "tools/tallowctl/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "platform/Base/FileDescriptor.h"
#include "tools/tallowctl/Output.h"

namespace tallow::ctl {

namespace {

// With its end. No terminal hands in a longer line.
constexpr std::size_t kMaxSecretBytes = 4096;
constexpr std::array kEndingSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// What the signal handler needs: the terminal that does not echo, and what it was like before.
volatile std::sig_atomic_t silentTerminal = -1;
termios settingsBefore;

void restoreEchoAndEnd(int signalNumber) {
  if (silentTerminal >= 0) tcsetattr(silentTerminal, TCSAFLUSH, &settingsBefore);
  std::signal(signalNumber, SIG_DFL);
  std::raise(signalNumber);
}

// While it lives, what is typed at the terminal is not shown.
class Silence {
 public:
  explicit Silence(int descriptor) : _descriptor(descriptor) {
    if (tcgetattr(descriptor, &settingsBefore) != 0) return;
    silentTerminal = descriptor;
    struct sigaction restoring {};
    restoring.sa_handler = restoreEchoAndEnd;
    for (std::size_t i = 0; i < kEndingSignals.size(); ++i)
      sigaction(kEndingSignals[i], &restoring, &_actionsBefore[i]);
    termios silent = settingsBefore;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_lflag |= ECHONL;
    termios now{};
    _isSilent = tcsetattr(descriptor, TCSAFLUSH, &silent) == 0 &&
                tcgetattr(descriptor, &now) == 0 && (now.c_lflag & ECHO) == 0;
  }
  ~Silence() {
    if (silentTerminal < 0) return;
    tcsetattr(_descriptor, TCSAFLUSH, &settingsBefore);
    for (std::size_t i = 0; i < kEndingSignals.size(); ++i)
      sigaction(kEndingSignals[i], &_actionsBefore[i], nullptr);
    silentTerminal = -1;
  }
  // A terminal that cannot be made silent is asked nothing.
  bool isSilent() const { return _isSilent; }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  const int _descriptor;
  bool _isSilent = false;
  std::array<struct sigaction, kEndingSignals.size()> _actionsBefore{};
};

void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// One byte, as read(2); nothing as at the end of input when `giveUp` becomes readable first.
ssize_t readByte(int descriptor, int giveUp, char* byte) {
  pollfd files[] = {{descriptor, POLLIN, 0}, {giveUp, POLLIN, 0}};
  if (poll(files, std::size(files), -1) < 0) return -1;
  return (files[1].revents & POLLIN) != 0 ? 0 : ::read(descriptor, byte, 1);
}

}  // namespace

bool Terminal::isThere() {
  return static_cast<bool>(FileDescriptor(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)));
}

std::optional<Terminal> Terminal::open() {
  const int descriptor = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (descriptor < 0) return std::nullopt;
  static std::mutex& turn = *new std::mutex;
  return Terminal(descriptor, std::unique_lock(turn));
}

Terminal::Terminal(Terminal&& other) noexcept
    : _descriptor(std::exchange(other._descriptor, -1)),
      _giveUp(other._giveUp),
      _turn(std::move(other._turn)) {}

Terminal::~Terminal() {
  if (_descriptor >= 0) close(_descriptor);
}

void Terminal::say(std::string_view text) const {
  writeAll(_descriptor, printable(text) + "\n");
}

void Terminal::saySetIn(std::string_view text) const {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    say("  " + std::string(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

bool Terminal::hasGivenUp() const {
  pollfd file{_giveUp, POLLIN, 0};
  if (poll(&file, 1, 0) <= 0) return false;
  tcflush(_descriptor, TCIFLUSH);
  return true;
}

std::optional<std::string> Terminal::askLine(std::string_view prompt) const {
  writeAll(_descriptor, printable(prompt));
  std::string line;
  for (char character = 0;;) {
    const ssize_t count = readByte(_descriptor, _giveUp, &character);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return line.empty() ? std::nullopt : std::optional(line);
    if (character == '\n') return line;
    line += character;
  }
}

std::optional<Secret> Terminal::askSecret(std::string_view prompt) const {
  forbidCoreDumps();  // not before: the service has to see who calls, and has by now
  const Silence silence(_descriptor);  // first: what is typed before it is thrown away
  if (!silence.isSilent()) return std::nullopt;
  writeAll(_descriptor, printable(prompt));
  return readSecretLine(_descriptor, _giveUp);
}

std::optional<Secret> Terminal::readSecretLine(int descriptor) {
  return readSecretLine(descriptor, -1);
}

std::optional<Secret> Terminal::readSecretLine(int descriptor, int giveUp) {
  std::array<char, kMaxSecretBytes> buffer{};
  std::size_t length = 0;
  bool isWhole = false;
  while (length < buffer.size()) {
    const ssize_t count = readByte(descriptor, giveUp, &buffer[length]);
    if (count < 0 && errno == EINTR) continue;
    isWhole = count == 0 ? length > 0 : count > 0 && buffer[length] == '\n';
    if (count <= 0 || isWhole) break;
    ++length;
  }
  std::optional<Secret> secret;
  if (isWhole) secret.emplace(std::string_view(buffer.data(), length));
  Secret::wipe(buffer.data(), buffer.size());
  return secret;
}

}  // namespace tallow::ctl
