#pragma once

#include <gmock/gmock.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/XPC/WireTypes.h"
#include "platform/XPC/XPCListener.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/FakeAccountService.h"
#include "tests/support/Heard.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ScopedDirectories.h"

namespace tallow {

inline constexpr const char* kServiceName = "com.vantor.tallowd";
inline constexpr const char* kServicePath = "/com/vantor/tallowd";
inline constexpr const char* kServiceInterface = "com.vantor.HSAccountService";

// A caller with a connection of its own that calls and waits.
class TestCaller {
 public:
  TestCaller()
      : _connection(sdbus::createSessionBusConnection()),
        _proxy(bus::makeProxy(*_connection, kServiceName, kServicePath)) {}

  sdbus::IConnection& connection() { return *_connection; }
  sdbus::IProxy& proxy() { return *_proxy; }

  // The results of a call of the service's interface, or the sdbus::Error.
  template <class... Results, class... Arguments>
  std::tuple<Results...> call(const char* member, const Arguments&... arguments) {
    return callOn<Results...>(kServiceInterface, member, arguments...);
  }
  template <class... Results, class... Arguments>
  std::tuple<Results...> callOn(const char* interface, const char* member,
                                const Arguments&... arguments) {
    const std::string name = member;  // the invoker keeps a reference
    std::tuple<Results...> results;
    std::apply(
        [&](auto&... into) {
          _proxy->callMethod(name)
              .onInterface(interface)
              .withTimeout(std::chrono::seconds(60))
              .withArguments(arguments...)
              .storeResultsTo(into...);
        },
        results);
    return results;
  }
  // "" or the name of the error that the call answers.
  template <class... Arguments>
  std::string errorOf(const char* member, const Arguments&... arguments) {
    return errorOn(kServiceInterface, member, arguments...).first;
  }
  // Name and text.
  template <class... Arguments>
  std::pair<std::string, std::string> errorOn(const char* interface, const char* member,
                                              const Arguments&... arguments) {
    try {
      callOn<>(interface, member, arguments...);
      return {};
    } catch (const sdbus::Error& error) {
      return {error.getName(), error.getMessage()};
    }
  }

 private:
  std::unique_ptr<sdbus::IConnection> _connection;
  std::unique_ptr<sdbus::IProxy> _proxy;
};

// A caller that sends without reading, until receive().
class FloodingCaller {
 public:
  FloodingCaller() {
    sd_bus* opened = nullptr;
    if (sd_bus_open_user(&opened) < 0) throw std::runtime_error("no bus");
    _bus.reset(opened);
  }

  template <class... Arguments>
  void send(const char* member, const char* signature = "", Arguments... arguments) {
    sd_bus_message* made = nullptr;
    sd_bus_message_new_method_call(_bus.get(), &made, kServiceName, kServicePath, kServiceInterface,
                                   member);
    const Message message(made);
    if (*signature != '\0') sd_bus_message_append(made, signature, arguments...);
    std::uint64_t serial = 0;  // without which the call would ask for no reply
    if (sd_bus_send(_bus.get(), made, &serial) < 0 || sd_bus_flush(_bus.get()) < 0)
      throw std::runtime_error("cannot send");
  }

  // Whether a call is answered well; waits.
  bool isServed() {
    send("isValid");
    return receive(1).contains("");
  }
  // Waits for `count` answers; how many there were of each kind, by error name ("" for none).
  std::map<std::string, int> receive(int count) {
    std::map<std::string, int> kinds;
    while (count > 0) {
      sd_bus_message* received = nullptr;
      if (sd_bus_process(_bus.get(), &received) < 0) throw std::runtime_error("cannot read");
      const Message message(received);
      if (received == nullptr) {
        sd_bus_wait(_bus.get(), UINT64_MAX);
        continue;
      }
      const sd_bus_error* const error = sd_bus_message_get_error(received);
      if (error == nullptr && sd_bus_message_is_signal(received, nullptr, nullptr) > 0) continue;
      ++kinds[error == nullptr ? "" : error->name];
      --count;
    }
    return kinds;
  }

 private:
  struct Release {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  };
  using Message = std::unique_ptr<sd_bus_message, Release>;
  std::unique_ptr<sd_bus, Release> _bus;
};

// A caller that exports a com.vantor.HSURLBagObserver at /observer.
class ObservingCaller : public TestCaller {
 public:
  ObservingCaller() : _object(sdbus::createObject(connection(), "/observer")) {
    _object->registerMethod("urlBagDidUpdateWithSuccess")
        .onInterface("com.vantor.HSURLBagObserver")
        .implementedAs([this](bool success, const std::vector<WireError>& error) {
          updates.note(
              {success, error.empty() ? std::nullopt : std::optional(error.front().value)});
        })
        .withNoReply();
    _object->finishRegistration();
    connection().enterEventLoopAsync();
  }
  ~ObservingCaller() { connection().leaveEventLoop(); }

  Heard<std::pair<bool, std::optional<Error>>> updates;

 private:
  std::unique_ptr<sdbus::IObject> _object;
};

// The listener on a private bus, serving fakes; the test itself is known by a descriptor.
class ListenerTest : public testing::Test, protected XPCListenerDelegate {
 protected:
  ListenerTest() {
    recogniseThisProcess("identifier = \"com.example.self\"");
    listener = XPCListener::initWithMachServiceName(kServiceName, XPCListener::Bus::Session);
    listener->setDelegate(this);
  }
  ~ListenerTest() override { listener->stop(); }

  void SetUp() override { ASSERT_FALSE(listener->resume()); }

  void writeDescriptor(const std::string& fileName, const std::string& text) {
    const auto folder = _directories.configHome / "clients.d";
    std::filesystem::create_directories(folder);
    std::ofstream(folder / (fileName + ".new")) << text;
    std::filesystem::rename(folder / (fileName + ".new"), folder / fileName);
  }
  // As what the text says.
  void recogniseThisProcess(const std::string& text) {
    const auto executable = std::filesystem::read_symlink("/proc/self/exe").string();
    writeDescriptor("self.toml", text + "\n[[process]]\nexecutable = \"" + executable + "\"\n");
  }

  // The object that serves the nth connection; waits for it.
  std::shared_ptr<FakeAccountService> service(std::size_t index) {
    std::unique_lock lock(_mutex);
    _accepted.wait(lock, [&] { return _services.size() > index; });
    return _services[index].second;
  }
  XPCConnection accepted(std::size_t index) {
    const std::lock_guard lock(_mutex);
    return _services.at(index).first;
  }
  std::size_t acceptedCount() {
    const std::lock_guard lock(_mutex);
    return _services.size();
  }

  PrivateBus bus;
  CapturedLog log;
  std::unique_ptr<XPCListener> listener;
  // Prepares each new service before its first call.
  std::function<void(FakeAccountService&)> prepare;

 private:
  std::shared_ptr<HSAccountService> listenerShouldAcceptNewConnection(
      const XPCConnection& connection) override {
    auto made = std::make_shared<FakeAccountService>();
    if (prepare) prepare(*made);
    const std::lock_guard lock(_mutex);
    _services.emplace_back(connection, made);
    _accepted.notify_all();
    return made;
  }

  ScopedDirectories _directories{bus.folder()};
  std::unique_ptr<ClientDescriptors> _descriptors = ClientDescriptors::make();
  ScopedShared<ClientDescriptors> _scopedDescriptors{*_descriptors};
  std::mutex _mutex;
  std::condition_variable _accepted;
  std::vector<std::pair<XPCConnection, std::shared_ptr<FakeAccountService>>> _services;
};

}  // namespace tallow
