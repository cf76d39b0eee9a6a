#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/Base/SourceLocation.h"
#include "platform/VendBase/HSStoreClient.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

// The one rule by which a store client finds its controller: one entry per client identifier (or
// whatever else the controller class says that its clients share it by), made on first use, kept
// for the life of the process. An Outfitter client (type 2) whose descriptor has changed gets a new
// entry in place of the old one; every other client keeps the entry it has, even when its
// descriptor differs.
//
// One registry per controller class, owned by that class. One lock guards it; making an entry
// happens under that lock. Any thread may ask.
//
// Controller provides: kClassName; storeClient(); static initWithStoreClient(client) -> shared_ptr,
// null when it cannot be made (then nothing is registered); and where clients with different
// identifiers share one, static registryKey(client).
template <class Controller>
class ClientRegistry {
 public:
  using Client = std::shared_ptr<const HSStoreClient>;
  using Entry = std::shared_ptr<Controller>;

  struct Texts {
    // The accessor's name as the log spells it, colon included: "storeForClient:".
    std::string_view accessor;
    // What a changed Outfitter client switches ("controller", "storage"); empty for a registry
    // whose entries never switch.
    std::string_view switchingSubject;
  };
  // Called with the new entry, still under the registry's lock, when a changed Outfitter client has
  // replaced its old one.
  using Replaced = std::function<void(Controller&)>;

  explicit ClientRegistry(Texts texts, Replaced replaced = nullptr)
      : _texts(texts), _replaced(std::move(replaced)) {}

  // Null for a client without an identifier, or when no controller could be made. What is logged
  // is said in the name of the accessor that asks.
  Entry entryForClient(const Client& client,
                       const SourceLocation& accessor = SourceLocation::current()) {
    VBLogManager& log = VBLogManager::sharedManager();
    if (!client || !client->identifier) {
      log.logLevelAt(
          accessor, 1,
          "%@: %s called with nil storeClient.identifier (storeClient is %@). No %@ will be "
          "available for this client",
          Controller::kClassName, _texts.accessor, client, Controller::kClassName);
      return nullptr;
    }
    const Holding holding(*this);
    if (const auto found = _entries.find(keyFor(*client)); found != _entries.end()) {
      if (!mustReplace(*found->second, *client)) return found->second;
      log.logLevelAt(accessor, 1, "%@: Outfitter is updated, %s is switching",
                     Controller::kClassName, _texts.switchingSubject);
      return makeEntry(client, /*replacing=*/true);
    }
    return makeEntry(client, /*replacing=*/false);
  }

  // The entry, if it exists, needs no replacing and can be had without waiting for the lock.
  Entry entryForClientIfAtHand(const Client& client) {
    if (!client || !client->identifier || isHeldByCurrentThread()) return nullptr;
    const std::unique_lock lock(_lock, std::try_to_lock);
    if (!lock) return nullptr;
    const auto found = _entries.find(keyFor(*client));
    if (found == _entries.end() || mustReplace(*found->second, *client)) return nullptr;
    return found->second;
  }

  // True while this thread is inside entryForClient (making or replacing an entry).
  bool isHeldByCurrentThread() const { return _holder.load() == std::this_thread::get_id(); }

  // A snapshot, for status reports. Does not wait for an entry that is being made.
  std::map<std::string, Entry> entries() {
    const std::lock_guard lock(_entriesLock);
    return {_entries.begin(), _entries.end()};
  }
  // Forgets every entry, as a fresh process would be (tests).
  void removeAll() {
    const std::scoped_lock locks(_lock, _entriesLock);
    _entries.clear();
  }

 private:
  class Holding {
   public:
    explicit Holding(ClientRegistry& registry) : _registry(registry), _guard(registry._lock) {
      _registry._holder = std::this_thread::get_id();
    }
    ~Holding() { _registry._holder = std::thread::id(); }
    Holding(const Holding&) = delete;
    Holding& operator=(const Holding&) = delete;

   private:
    ClientRegistry& _registry;
    std::lock_guard<std::mutex> _guard;
  };

  static decltype(auto) keyFor(const HSStoreClient& client) {
    if constexpr (requires { Controller::registryKey(client); })
      return Controller::registryKey(client);
    else
      return (*client.identifier);
  }

  bool mustReplace(const Controller& entry, const HSStoreClient& client) const {
    return !_texts.switchingSubject.empty() && client.clientType == kHSStoreClientTypeOutfitter &&
           client.descriptorReading >= entry.storeClient()->descriptorReading &&
           entry._storeClientUpdated(client);
  }

  Entry makeEntry(const Client& client, bool replacing) {
    Entry entry = Controller::initWithStoreClient(client);
    if (!entry) return nullptr;
    Entry previous = entry;  // whose end, which may close files, nobody waits for
    {
      const std::lock_guard lock(_entriesLock);
      std::swap(_entries[keyFor(*client)], previous);
    }
    if (replacing && _replaced) _replaced(*entry);
    return entry;
  }

  const Texts _texts;
  const Replaced _replaced;
  std::mutex _lock;
  std::atomic<std::thread::id> _holder{};
  std::mutex _entriesLock;                             // after _lock, and only for a moment
  std::map<std::string, Entry, std::less<>> _entries;  // written with both locks, read with either
};

// What a registered controller knows of its client: the client itself, and the rule that tells
// whether another description of it differs.
class ClientController {
 public:
  const std::shared_ptr<const HSStoreClient>& storeClient() const { return _storeClient; }
  bool _storeClientUpdated(const HSStoreClient& client) const {
    return !client.isEqualToStoreClient(*_storeClient);
  }

 protected:
  explicit ClientController(std::shared_ptr<const HSStoreClient> storeClient)
      : _storeClient(std::move(storeClient)) {}
  ~ClientController() = default;

 private:
  const std::shared_ptr<const HSStoreClient> _storeClient;
};

}  // namespace tallow
