#include "platform/XPC/ProcessInspector.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/FileDescriptor.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr int kPatienceMilliseconds = 5000;
constexpr std::size_t kMaxQuestionsAtOnce = 32;
constexpr std::ptrdiff_t kMaxQuestionsOfUserAtOnce = 16;
constexpr std::size_t kMaxAnswerBytes = 32u << 10;

std::atomic<int> helperSocket{-1};

// One question: a process number and its user's, and as attached files the socket for the answer
// and, perhaps, a descriptor of the process. One answer: the strings of the identity, each ended by
// a NUL.
struct Asked {
  std::int64_t pid = 0;
  std::int64_t uid = -1;  // for anybody's
};

bool ask(int socket, Asked asked, int answerSocket, int pidfd) {
  iovec part{&asked, sizeof(asked)};
  std::array<int, 2> files{answerSocket, pidfd};
  const std::size_t fileBytes = (pidfd >= 0 ? 2 : 1) * sizeof(int);
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(files))] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(fileBytes);
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(fileBytes);
  std::memcpy(CMSG_DATA(header), files.data(), fileBytes);
  return sendmsg(socket, &message, MSG_NOSIGNAL) == ssize_t{sizeof(asked)};
}

struct Question {
  Asked asked;
  FileDescriptor answerSocket;
  FileDescriptor pidfd;
};

// False at the end of the parent.
bool receive(int socket, Question& question) {
  iovec part{&question.asked, sizeof(question.asked)};
  std::array<int, 2> files{-1, -1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(files))] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  ssize_t length = 0;
  do {
    length = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  } while (length < 0 && errno == EINTR);
  if (length <= 0) return false;
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header != nullptr && header->cmsg_type == SCM_RIGHTS)
    std::memcpy(files.data(), CMSG_DATA(header), header->cmsg_len - CMSG_LEN(0));
  question.answerSocket = FileDescriptor(files[0]);
  question.pidfd = FileDescriptor(files[1]);
  return true;
}

std::string encoded(const ProcessIdentity& process) {
  std::string text;
  for (const std::string* field : {&process.executable, &process.systemUnit, &process.userUnit,
                                   &process.flatpak, &process.doubt}) {
    text += *field;
    text += '\0';
  }
  return text;
}

bool decode(std::string_view text, ProcessIdentity& process) {
  for (std::string* field : {&process.executable, &process.systemUnit, &process.userUnit,
                             &process.flatpak, &process.doubt}) {
    const std::size_t end = text.find('\0');
    if (end == std::string_view::npos) return false;
    *field = text.substr(0, end);
    text.remove_prefix(end + 1);
  }
  return true;
}

void answer(const Question& question) {
  const auto [pid, uid] = question.asked;
  const std::string text = encoded(ProcessIdentity::inspect(
      pid, question.pidfd.get(),
      uid >= 0 ? std::optional(static_cast<std::uint32_t>(uid)) : std::nullopt));
  send(question.answerSocket.get(), text.data(), text.size(), MSG_NOSIGNAL);
}

// A process for each question: one that hangs, on a file system that does not answer, holds up no
// other, and is ended when nobody waits for its answer any more.
class Helper {
 public:
  explicit Helper(int socket) : _socket(socket) {}

  // Until the parent ends.
  void run() {
    for (;;) {
      forgetEnded();
      pollfd file{_socket, POLLIN, 0};
      const int ready = poll(&file, 1, _running.empty() ? -1 : kLookAgainMilliseconds);
      if (ready <= 0) continue;
      Question question;
      if (!receive(_socket, question)) return;
      take(question);
    }
  }

 private:
  static constexpr int kLookAgainMilliseconds = 250;
  using Steady = std::chrono::steady_clock;
  struct Running {
    pid_t process;
    uid_t user;  // whose process it looks at
    Steady::time_point end;
  };

  void forgetEnded() {
    const auto now = Steady::now();
    std::erase_if(_running, [now](const Running& each) {
      if (waitpid(each.process, nullptr, WNOHANG) != 0) return true;
      if (now >= each.end) kill(each.process, SIGKILL);
      return false;
    });
  }

  // A question that cannot be taken now has its socket closed unanswered.
  void take(const Question& question) {
    struct stat status {};
    const std::string entry = "/proc/" + std::to_string(question.asked.pid);
    if (stat(entry.c_str(), &status) != 0) status.st_uid = static_cast<uid_t>(-1);
    const auto ofUser =
        std::count_if(_running.begin(), _running.end(),
                      [&status](const Running& each) { return each.user == status.st_uid; });
    if (_running.size() >= kMaxQuestionsAtOnce || ofUser >= kMaxQuestionsOfUserAtOnce) return;
    const pid_t child = fork();
    if (child == 0) {
      close(_socket);  // which would else not be seen to end with this helper
      answer(question);
      _exit(0);
    }
    const auto patience = std::chrono::milliseconds(kPatienceMilliseconds);
    if (child > 0) _running.push_back({child, status.st_uid, Steady::now() + patience});
  }

  const int _socket;
  std::vector<Running> _running;
};

[[noreturn]] void runHelper(int socket) {
  prctl(PR_SET_NAME, "tallow-inspect");
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  Helper(socket).run();
  _exit(0);
}

// The socket, or -1 with errno.
int connectTo(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::strcpy(address.sun_path, path);
  const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (connection >= 0 &&
      connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    close(connection);
    return -1;
  }
  return connection;
}

class HelpedProcessInspector final : public ProcessInspector {
 public:
  ProcessIdentity inspect(std::int64_t pid, int pidfd, std::optional<std::uint32_t> uid) override {
    const int helper = helperSocket.load();
    if (helper < 0) return ProcessIdentity::inspect(pid, pidfd, uid);
    ProcessIdentity process;
    process.pid = pid;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      process.doubt = "no files are left to look at it";
      process.isUnseen = true;
      return process;
    }
    const FileDescriptor here(ends[0]);
    bool asked = false;
    bool hasEnded = false;
    {
      const FileDescriptor there(ends[1]);
      asked = ask(helper, {pid, uid ? std::int64_t{*uid} : -1}, there.get(), pidfd);
      hasEnded = !asked && (errno == EPIPE || errno == ECONNRESET);
    }
    if (hasEnded) {
      // Nobody could be recognised any more; the next call starts a service that can.
      logLevel(1, "%@: the process that looks at callers has ended", ProcessInspector::kClassName);
      RunLoop::main().stop(EXIT_FAILURE);
    }
    std::string text(kMaxAnswerBytes, '\0');
    pollfd file{here.get(), POLLIN, 0};
    const bool isAnswered = asked && poll(&file, 1, kPatienceMilliseconds) > 0;
    const ssize_t length = isAnswered ? recv(here.get(), text.data(), text.size(), 0) : 0;
    if (length <= 0 || !decode({text.data(), static_cast<std::size_t>(length)}, process)) {
      process = {};
      process.pid = pid;
      process.doubt = "it could not be looked at";
      process.isUnseen = true;
    }
    return process;
  }
};

}  // namespace

void ProcessInspector::serve(int socket) {
  runHelper(socket);
}

ProcessInspector& ProcessInspector::shared() {
  return SharedInstance<ProcessInspector>::get(
      [] { return std::make_unique<HelpedProcessInspector>(); });
}

bool ProcessInspector::startHelper() {
  if (const char* path = std::getenv("TALLOW_INSPECTOR"); path != nullptr && *path != '\0') {
    helperSocket = connectTo(path);
    return helperSocket >= 0;
  }
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
  const pid_t child = fork();
  if (child < 0) {
    close(ends[0]);
    close(ends[1]);
    return false;
  }
  if (child == 0) {
    // Nothing of the parent's is needed; its end of the pair above all must not stay open here.
    const int socket = dup2(ends[1], STDERR_FILENO + 1);
    close_range(STDERR_FILENO + 2, ~0u, 0);
    runHelper(socket);
  }
  close(ends[1]);
  helperSocket = ends[0];
  return true;
}

}  // namespace tallow
