#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devstore/ReceivedRequest.h"
#include "devstore/StoreURLs.h"
#include "platform/Base/Error.h"
#include "platform/Base/Result.h"

namespace tallow::devstore {

// A store to develop against, over http and https on this machine only: signed bags, the client-ID
// ping, pages that set cookies, redirects, each of which can be staged to misbehave
// (docs/devstore.md).
//
// Owned by whoever starts it: the program tallow-devstore, or a test, in its own process. Serves on
// threads of its own until it is destroyed; every operation may be called from any thread.
class DevStore {
 public:
  struct Options {
    // Keeps the keys; made where missing, held by one store at a time.
    std::filesystem::path stateDirectory;
    std::string listenAddress = "127.0.0.1";  // or "::1"
    std::uint16_t httpPort = 0;               // 0: any free port
    std::uint16_t httpsPort = 0;
    bool fresh = false;  // forget the keys that the folder holds
    // Told of each answer; called from any thread. May be empty.
    std::function<void(const ReceivedRequest&, int status)> whenAnswered;
  };

  // The store, answering already. Errors (domain "DevStore") say what to do.
  static Result<std::unique_ptr<DevStore>> start(Options options);
  ~DevStore();

  const StoreURLs& urls() const;
  // The authority that https is to be trusted by (PEM).
  std::filesystem::path tlsAuthorityFile() const;
  // The anchor of the signed bags (PEM).
  std::filesystem::path anchorFile() const;

  // As POST /control does with the same text. Returns what is wrong with it.
  std::optional<Error> stage(std::string_view jsonText);
  // What has been received for `path`, or everything when it is empty; oldest first.
  std::vector<ReceivedRequest> requests(std::string_view path = {}) const;
  // Waits until `count` requests for `path` have been received; false when they have not in time.
  bool waitForRequests(std::string_view path, std::size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
  void forgetRequests();

 private:
  struct State;
  explicit DevStore(std::unique_ptr<State> state);

  const std::unique_ptr<State> _state;
};

}  // namespace tallow::devstore
