#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "devstore/CommandLine.h"
#include "devstore/DevStore.h"
#include "devstore/Peer.h"
#include "devstore/ScriptedTransactionService.h"

using tallow::BusConnection;
using tallow::URL;
using tallow::devstore::CommandLine;
using tallow::devstore::DevStore;
using tallow::devstore::Peer;
using tallow::devstore::ReceivedRequest;

namespace {

void printAnswered(const ReceivedRequest& request, int status) {
  std::string path = request.path;  // whoever sends it must not steer this terminal
  std::replace_if(
      path.begin(), path.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
  std::fprintf(stderr, "%s %s %s %d\n", request.secure ? "https" : "http", request.method.c_str(),
               path.c_str(), status);
}

int fail(const std::string& why) {
  std::fprintf(stderr, "tallow-devstore: %s\n", why.c_str());
  return EXIT_FAILURE;
}

int runUntilEnded(const sigset_t& endings) {
  int received = 0;
  sigwait(&endings, &received);
  return EXIT_SUCCESS;
}

int runPeer(const CommandLine::Peer& wanted, const sigset_t& endings) {
  const std::optional<URL> store = URL::parse(wanted.store);
  if (!store) return fail(wanted.store + ": no address of a store");
  const auto peer =
      Peer::start(wanted.name, *store,
                  wanted.onSystemBus ? BusConnection::Bus::System : BusConnection::Bus::Session);
  if (!peer) return fail(peer.error().localizedDescription());
  return runUntilEnded(endings);
}

int runTransactionService(const std::string& name, const sigset_t& endings) {
  // Without its bus it is of no use to anybody.
  const auto service =
      tallow::devstore::startScriptedTransactionService(name, [] { ::kill(getpid(), SIGTERM); });
  if (!service)
    return fail("cannot be the transaction service: " + service.error().localizedDescription());
  return runUntilEnded(endings);
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

  if (!commandLine->transactionName.empty())
    return runTransactionService(commandLine->transactionName, endings);
  if (commandLine->peer) return runPeer(*commandLine->peer, endings);
  if (commandLine->verbose) commandLine->options.whenAnswered = printAnswered;
  const auto store = DevStore::start(commandLine->options);
  if (!store) return fail(store.error().localizedDescription());
  std::printf("TALLOW_DEVSTORE=%s\nTALLOW_DEVSTORE_HTTPS=%s\nTALLOW_DEVSTORE_CA=%s\nready\n",
              (*store)->urls().http.c_str(), (*store)->urls().https.c_str(),
              (*store)->tlsAuthorityFile().c_str());
  std::fflush(stdout);
  return runUntilEnded(endings);
}
