#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "devstore/CommandLine.h"
#include "devstore/DevStore.h"

using tallow::devstore::CommandLine;
using tallow::devstore::DevStore;
using tallow::devstore::ReceivedRequest;

namespace {

void printAnswered(const ReceivedRequest& request, int status) {
  std::string path = request.path;  // whoever sends it must not steer this terminal
  std::replace_if(
      path.begin(), path.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
  std::fprintf(stderr, "%s %s %s %d\n", request.secure ? "https" : "http", request.method.c_str(),
               path.c_str(), status);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  int exitCode = EXIT_SUCCESS;
  std::optional<CommandLine> commandLine = CommandLine::read(argumentCount, arguments, exitCode);
  if (!commandLine) return exitCode;

  // Blocked before there is any other thread, so that none of them is interrupted.
  sigset_t endings;
  sigemptyset(&endings);
  sigaddset(&endings, SIGTERM);
  sigaddset(&endings, SIGINT);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);

  if (commandLine->verbose) commandLine->options.whenAnswered = printAnswered;
  const auto store = DevStore::start(commandLine->options);
  if (!store) {
    std::fprintf(stderr, "tallow-devstore: %s\n", store.error().localizedDescription().c_str());
    return EXIT_FAILURE;
  }
  std::printf("TALLOW_DEVSTORE=%s\nTALLOW_DEVSTORE_HTTPS=%s\nTALLOW_DEVSTORE_CA=%s\nready\n",
              (*store)->urls().http.c_str(), (*store)->urls().https.c_str(),
              (*store)->tlsAuthorityFile().c_str());
  std::fflush(stdout);

  int received = 0;
  sigwait(&endings, &received);
  return EXIT_SUCCESS;
}
