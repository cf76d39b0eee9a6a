#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "client/AccountServiceClient.h"
#include "devstore/DevStore.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {

// Who has signed in; 0, and a failure with the reason, when nobody has.
inline std::uint64_t dsIDOf(const Result<AccountServiceClient::SignIn>& signIn) {
  if (signIn && signIn->success && signIn->account)
    return (*signIn->account)["dsid"].unsignedValue();
  ADD_FAILURE() << description(signIn ? signIn->error.value_or(Error()) : signIn.error());
  return 0;
}

// The real service on a bus of its own that starts it on demand, its folders, and a store in this
// process. The test program is the store client "com.example.test"; its bags come over `scheme`.
//
// Everything the service inherits goes through the environment, so this is made before other
// threads start, once a test.
class RunningService {
 public:
  static constexpr const char* kClient = "com.example.test";
  // A peer that the store plays, in a process of its own.
  static constexpr const char* kPushAgent = "com.vantor.quillonpushagent-xpc";

  explicit RunningService(const std::string& scheme = "https") : _store(startStore()) {
    prepare(scheme);
    _bus = std::make_unique<PrivateBus>();
    _bus->mayStart({{kService, TALLOWD_PROGRAM},
                    {kPushAgent, TALLOW_DEVSTORE_PROGRAM " peer push-agent"},
                    {"com.vantor.downloadservice", TALLOW_DEVSTORE_PROGRAM " peer downloads"},
                    {"com.vantor.grantwell", TALLOW_DEVSTORE_PROGRAM " peer purchase-permission"}});
    reconnect();
  }
  ~RunningService() {
    _client.reset();
    kill();
  }

  AccountServiceClient& client() { return *_client; }
  // A connection of its own, as another process would have.
  static std::unique_ptr<AccountServiceClient> connect() {
    return std::make_unique<AccountServiceClient>(AccountServiceClient::Instance::Agent);
  }
  void reconnect() { _client = connect(); }
  devstore::DevStore& store() { return *_store; }
  // What the store does next: the text of POST /control.
  void stage(const std::string& json) {
    const std::optional<Error> error = _store->stage(json);
    EXPECT_FALSE(error) << json << ": " << error->localizedDescription();
  }
  // A page of the store, and the header with the cookies for it; "" when there are none.
  std::string page() const { return storeURL("https", "/store/page"); }
  std::string cookies() {
    const auto headers = _client->httpHeadersForURL(page(), std::nullopt, false);
    EXPECT_TRUE(headers) << headers.error().localizedDescription();
    const std::string* const text = headers ? (*headers)["Cookie"].string() : nullptr;
    return text != nullptr ? *text : "";
  }
  const PrivateBus& bus() const { return *_bus; }
  std::string storeURL(const std::string& scheme, const std::string& path) const {
    return (scheme == "https" ? _store->urls().https : _store->urls().http) + path;
  }
  std::filesystem::path configHome() const { return _root.path() / "config" / "tallowd"; }
  std::filesystem::path systemConfig() const { return _root.path() / "etc" / "tallowd"; }
  std::filesystem::path persistedBag() const {
    return _root.path() / "cache" / "tallowd" / kClient / "ProductionBag";
  }
  std::filesystem::path cookieFile() const {
    return _root.path() / "data" / "tallowd" / "Cookies" / (std::string(kClient) + ".cookies");
  }

  static constexpr const char* kService = "com.vantor.tallowd";
  static constexpr const char* kSystemService = "com.vantor.tallowd.daemon";

  // The service's process, 0 when it does not run.
  pid_t pid(const std::string& name = kService) const { return _bus->ownerOf(name); }
  // Ends the service as a crash would; returns when it is gone from the bus.
  void kill(const std::string& name = kService) {
    const pid_t running = pid(name);
    if (running == 0) return;
    ::kill(running, SIGKILL);
    _bus->waitUntilUnowned(name);
  }
  // Lets the bus start the system-wide instance, too, with the same folders.
  void alsoStartOnSystemBus() const {
    _bus->mayStart({{kSystemService, "/usr/bin/env DBUS_SYSTEM_BUS_ADDRESS=" + _bus->address() +
                                         " " TALLOWD_PROGRAM " daemon"}});
  }
  void writeDescriptor(const std::string& name, const std::string& text) const {
    std::ofstream(configHome() / "clients.d" / (name + ".toml")) << text;
  }
  // Describes this very program as the client; `extra` are more lines of the descriptor.
  void describeClient(const std::string& scheme, const std::string& extra = {}) {
    std::filesystem::create_directories(configHome() / "clients.d");
    std::ofstream(configHome() / "clients.d" / "test.toml")
        << "identifier = \"" << kClient << "\"\nproduction-bag-urls = [\""
        << storeURL(scheme, "/bag") << "\"]\n"
        << extra << "[[process]]\nexecutable = \""
        << std::filesystem::canonical("/proc/self/exe").native() << "\"\n";
  }

 private:
  std::unique_ptr<devstore::DevStore> startStore() {
    devstore::DevStore::Options options;
    options.stateDirectory = _root.path() / "store";
    auto store = devstore::DevStore::start(std::move(options));
    if (!store) throw std::runtime_error(store.error().localizedDescription());
    return std::move(*store);
  }
  void prepare(const std::string& scheme) {
    ::setenv("XDG_CONFIG_HOME", (_root / "config").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (_root / "data").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (_root / "cache").c_str(), 1);
    ::setenv("XDG_STATE_HOME", (_root / "state").c_str(), 1);
    ::setenv("XDG_CONFIG_DIRS", (_root.path() / "etc").c_str(), 1);
    ::setenv("XDG_DATA_DIRS", "/nonexistent", 1);
    ::setenv("TALLOW_CA_FILE", _store->tlsAuthorityFile().c_str(), 1);
    ::setenv("TALLOW_LOG", "stderr", 1);
    ::setenv("TALLOW_DEVSTORE", _store->urls().http.c_str(), 1);
    std::filesystem::create_directories(systemConfig() / "anchors");
    std::filesystem::copy_file(_store->anchorFile(), systemConfig() / "anchors" / "root.pem");
    describeClient(scheme);
  }

  TemporaryFolder _root;
  std::unique_ptr<devstore::DevStore> _store;
  std::unique_ptr<PrivateBus> _bus;
  std::unique_ptr<AccountServiceClient> _client;
};

}  // namespace tallow
