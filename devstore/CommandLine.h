#pragma once

#include <optional>
#include <string>

#include "devstore/DevStore.h"

namespace tallow::devstore {

// What the command line of tallow-devstore asks for.
struct CommandLine {
  // Not the store, but one of the peers that stand in on the bus.
  struct Peer {
    std::string name;
    std::string store;  // its address
    bool onSystemBus = false;
  };

  DevStore::Options options;
  bool verbose = false;
  std::optional<Peer> peer;
  // Not empty: nothing but the transaction service, which signs in under this name.
  std::string transactionName;

  // Reads the arguments. When there is nothing to run, because of --help, --version or wrong usage,
  // all that is to be said has been printed and `exitCode` says how the program ends.
  static std::optional<CommandLine> read(int argumentCount, const char* const* arguments,
                                         int& exitCode);
};

}  // namespace tallow::devstore
