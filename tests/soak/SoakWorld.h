#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tests/support/PrivateBus.h"
#include "tests/support/Program.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {

// What is soaked: the real service on a bus of its own, with the peers that the bus starts for it,
// and a store in a process of its own; each can be killed at any moment. The service's folders are,
// where this process may mount, on a small disk of their own that can be filled.
//
// Everything the service inherits goes through the environment: made before other threads start,
// once a program. The operations may be called from any thread.
class SoakWorld {
 public:
  // Store clients of different types, so that each has accounts, a jar and a storefront of its own.
  static constexpr int kClients = 4;
  static std::string client(int number);

  SoakWorld();
  ~SoakWorld();
  SoakWorld(const SoakWorld&) = delete;
  SoakWorld& operator=(const SoakWorld&) = delete;

  std::string storeURL(const std::string& path) const { return _https + path; }

  // Each as a crash would; false when it did not run. The store is started again at once, where it
  // was; the service and its peers are started by the bus when they are next wanted.
  bool killService();
  void killStore();
  bool killPeer(const std::string& name);
  // How often the service has been killed.
  std::uint64_t kills() const { return _kills; }
  // The service's process; 0 when it does not run.
  pid_t service() const { return _bus->ownerOf("com.vantor.tallowd"); }

  // Stages what the store does next: the text of POST /control. Lost when the store is killed.
  void stage(const std::string& json) const;

  bool hasDisk() const { return _hasDisk; }
  void fillDisk() const;
  void freeDisk() const;

  struct Resources {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    std::size_t privateKilobytes = 0;
  };
  static std::optional<Resources> resourcesOf(pid_t process);

 private:
  void startStore();
  void describeClients() const;

  TemporaryFolder _root;
  bool _hasDisk = false;
  std::mutex _storeLock;
  std::optional<Program> _store;
  std::string _http, _https;
  std::unique_ptr<PrivateBus> _bus;
  std::atomic<std::uint64_t> _kills{0};
};

}  // namespace tallow
