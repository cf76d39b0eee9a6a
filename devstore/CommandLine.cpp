#include "devstore/CommandLine.h"

#include <CLI/CLI.hpp>
#include <string>

#include "devstore/Peer.h"

namespace tallow::devstore {

namespace {

constexpr int kWrongUsage = 2;

constexpr const char* kDescription =
    "A store to develop against, on this machine only.\n\n"
    "Serves signed bags, the client-ID ping, pages that set cookies, and redirects, over http and\n"
    "https. POST JSON to /control to stage what a store can do wrong; GET /control/requests lists\n"
    "what the store has received.";

constexpr const char* kFooter =
    "\nOnce it serves, it prints on standard output\n"
    "  TALLOW_DEVSTORE=http://127.0.0.1:PORT\n"
    "  TALLOW_DEVSTORE_HTTPS=https://localhost:PORT\n"
    "  TALLOW_DEVSTORE_CA=DIR/tls-ca.pem\n"
    "  ready\n"
    "and it runs until SIGTERM or SIGINT. DIR/anchors/root.pem is the anchor of its signed "
    "bags.\n\n"
    "A peer stands in for a process that tallowd asks on the bus (the push agent, the download\n"
    "service, the purchase-permission service). It hands every call to the store at\n"
    "TALLOW_DEVSTORE, which lists it and answers it as staged. The bus starts it on demand.\n\n"
    "Example\n"
    "  tallow-devstore --state /tmp/store --port 8080 &\n"
    "  curl --json '{\"bag\": {\"flipByte\": 100, \"times\": 1}}' http://127.0.0.1:8080/control\n\n"
    "Exit status: 0 ended by a signal, 1 could not start, 2 wrong usage.\n"
    "See tallow-devstore(1).";

}  // namespace

std::optional<CommandLine> CommandLine::read(int argumentCount, const char* const* arguments,
                                             int& exitCode) {
  CommandLine commandLine;
  DevStore::Options& options = commandLine.options;
  std::string directory;

  CLI::App app(kDescription, "tallow-devstore");
  app.footer(kFooter);
  app.set_version_flag("--version", "tallow-devstore " TALLOW_VERSION,
                       "Print the version and exit");
  app.set_help_flag("--help,-h", "Print this help and exit");
  CLI::Option* const state =
      app.add_option("--state", directory,
                     "The folder that keeps the store's keys; made if missing")
          ->type_name("DIR");
  app.add_option("--port", options.httpPort, "The port for http; 0, the default, takes a free one")
      ->type_name("N")
      ->check(CLI::Range(0, 65535));
  app.add_option("--https-port", options.httpsPort,
                 "The port for https; 0, the default, takes a free one")
      ->type_name("N")
      ->check(CLI::Range(0, 65535));
  app.add_option("--listen", options.listenAddress,
                 "The address to listen on, 127.0.0.1 (the default) or ::1")
      ->type_name("ADDRESS");
  app.add_flag("--fresh", options.fresh, "Forget the keys that DIR holds and make new ones");
  app.add_flag("--verbose,-v", commandLine.verbose,
               "Print each answered request on standard error");
  Peer peer;
  CLI::App* const peerCommand =
      app.add_subcommand("peer", "Stand in for one of the service's peers on the bus");
  peerCommand->add_option("NAME", peer.name, "Which")
      ->required()
      ->check(CLI::IsMember(devstore::Peer::names()));
  peerCommand->add_option("--store", peer.store, "The address of the store that answers")
      ->required()
      ->envname("TALLOW_DEVSTORE")
      ->type_name("URL");
  peerCommand->add_flag("--system", peer.onSystemBus, "On the system bus, not the session bus");
  CLI::App* const transactionCommand =
      app.add_subcommand("transaction-service",
                         "Be the transaction service on the session bus: sign in without asking");
  transactionCommand
      ->add_option("NAME", commandLine.transactionName,
                   "The account name, where the account service asks for none")
      ->required();
  try {
    app.parse(argumentCount, arguments);
    if (!*peerCommand && !*transactionCommand && !*state) throw CLI::RequiredError("--state");
  } catch (const CLI::Success& success) {
    exitCode = app.exit(success);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    exitCode = kWrongUsage;
    return std::nullopt;
  }
  options.stateDirectory = directory;
  if (*peerCommand) commandLine.peer = peer;
  return commandLine;
}

}  // namespace tallow::devstore
