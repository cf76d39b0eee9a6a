#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Base/Error.h"
#include "platform/Base/Value.h"
#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

struct OrvAction;

// The process-wide source of the request headers that identify this machine: a one-time password
// and a machine identifier, for an account (DSID) or without one, and the state that the store
// handed out when the machine was last synchronised. Also carries out what a store orders in its
// response headers: reset the provisioning, provision, synchronise.
//
// Every use of the machine-identity library goes through one serial queue, and an ordered exchange
// holds it for as long as it takes: a question for headers waits behind it, handing response
// headers in never does. Any thread may call.
class OrvController {
 public:
  static constexpr const char* kClassName = "OrvController";

  static OrvController& sharedController();
  OrvController();

  // Headers that identify the machine without an account.
  Dictionary httpRequestHeaders();
  // Headers that identify the machine to an account: empty where it is not provisioned, nil for a
  // nil DSID.
  std::optional<Dictionary> httpRequestHeadersForDSID(std::optional<std::uint64_t> dsID);
  // The same for each, and only if nothing of any of them can wait; else nil.
  std::optional<std::vector<Dictionary>> httpRequestHeadersForDSIDsIfIdle(
      std::span<const std::uint64_t> dsIDs);

  // Reads a response's action headers and has the action carried out. Returns at once.
  void processHTTPHeaders(const Dictionary& headers,
                          const std::shared_ptr<const HSStoreClient>& forStoreClient);

  // What the last synchronisation brought; sent with every question for headers.
  std::optional<Data> syncState() const;
  void setSyncState(std::optional<Data> syncState);

  // For status reports.
  struct Status {
    bool hasSyncState = false;
    // Nil while the library is busy, with an exchange above all; the DSIDs also for a library that
    // does not tell them.
    std::optional<std::string> library;
    std::optional<std::vector<std::uint64_t>> provisionedDSIDs;
  };
  Status status() const;

  // How many ordered actions of one client may wait.
  static constexpr int kMostWaitingActions = 32;
  // And for how long; only to reset the provisioning is never too late.
  static constexpr double kLongestWaitSeconds = 60;

 private:
  using Bytes = std::optional<std::span<const std::uint8_t>>;
  using OTPHandler = std::function<void(bool success, Bytes machineIdentifier, Bytes password)>;

  std::optional<Dictionary> _httpRequestHeadersForDSID(std::optional<std::uint64_t> dsID);
  void _generateOTPOnCurrentThreadForDSID(std::uint64_t dsID, const OTPHandler& withHandler);
  void _process(const OrvAction& action, const std::shared_ptr<const HSStoreClient>& storeClient);
  void _resetProvisioning(std::optional<std::uint64_t> dsID);
  void _startProvisioning(const std::optional<Data>& data, std::optional<std::uint64_t> dsID,
                          const std::shared_ptr<const HSStoreClient>& storeClient);
  void _synchronizeMachine(const std::optional<Data>& data, std::optional<std::uint64_t> dsID,
                           const std::shared_ptr<const HSStoreClient>& storeClient);
  // Counts one more action of the client; false when too many wait already.
  bool _mayWait(const std::string& client);
  void _isDone(const std::string& client);

  SerialQueue _serialQueue;
  std::atomic<bool> _isLibraryOpen = false;
  mutable std::mutex _lock;
  std::optional<Data> _syncState;       // guarded by _lock
  std::map<std::string, int> _waiting;  // likewise, by client: the actions that wait or run
};

}  // namespace tallow
