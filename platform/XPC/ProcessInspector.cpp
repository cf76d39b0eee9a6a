#include "platform/XPC/ProcessInspector.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Base/FileDescriptor.h"
#include "platform/Base/SharedInstance.h"

namespace tallow {

namespace {

constexpr int kPatienceMilliseconds = 5000;
constexpr int kMaxQuestionsAtOnce = 32;
constexpr std::size_t kMaxAnswerBytes = 32u << 10;

std::atomic<int> helperSocket{-1};

// One question: a process number, and as attached files the socket for the answer and, perhaps, a
// descriptor of the process. One answer: the strings of the identity, each ended by a NUL.

bool ask(int socket, std::int64_t pid, int answerSocket, int pidfd) {
  iovec part{&pid, sizeof(pid)};
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
  return sendmsg(socket, &message, MSG_NOSIGNAL) == ssize_t{sizeof(pid)};
}

struct Question {
  std::int64_t pid = 0;
  FileDescriptor answerSocket;
  FileDescriptor pidfd;
};

// False at the end of the parent.
bool receive(int socket, Question& question) {
  iovec part{&question.pid, sizeof(question.pid)};
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
  const std::string text = encoded(ProcessIdentity::inspect(question.pid, question.pidfd.get()));
  send(question.answerSocket.get(), text.data(), text.size(), MSG_NOSIGNAL);
}

// A thread for each question: one that hangs on a network file system holds up no other.
[[noreturn]] void runHelper(int socket) {
  prctl(PR_SET_NAME, "tallow-inspect");
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  static std::atomic<int> running{0};
  for (Question question; receive(socket, question); question = {}) {
    // A question that cannot be taken now has its socket closed unanswered.
    if (running.fetch_add(1) >= kMaxQuestionsAtOnce) {
      running.fetch_sub(1);
      continue;
    }
    try {
      std::thread([asked = std::move(question)] {
        answer(asked);
        running.fetch_sub(1);
      }).detach();
    } catch (const std::system_error&) {  // the system has no thread left
      running.fetch_sub(1);
    }
  }
  _exit(0);
}

class HelpedProcessInspector final : public ProcessInspector {
 public:
  ProcessIdentity inspect(std::int64_t pid, int pidfd) override {
    const int helper = helperSocket.load();
    if (helper < 0) return ProcessIdentity::inspect(pid, pidfd);
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
    {
      const FileDescriptor there(ends[1]);
      asked = ask(helper, pid, there.get(), pidfd);
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

ProcessInspector& ProcessInspector::shared() {
  return SharedInstance<ProcessInspector>::get(
      [] { return std::make_unique<HelpedProcessInspector>(); });
}

bool ProcessInspector::startHelper() {
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
