#include "platform/XPC/XPCListener.h"

#include <malloc.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <future>
#include <thread>

#include "platform/Base/FileDescriptor.h"
#include "platform/PropertyList/JSON.h"
#include "tests/platform/XPC/ListenerFixture.h"

namespace tallow {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* kNoReply = "com.vantor.Error.NoReply";
constexpr const char* kRemoteObject = "com.vantor.HSServiceRemoteObject";
constexpr const char* kURL = "https://store.example/buy?id=1";

using Strings = std::vector<std::string>;
using DSIDs = std::vector<std::uint64_t>;

TEST_F(ListenerTest, TakesAURLThatDoesNotParseForNil) {
  TestCaller caller;
  for (const char* text : {"", "not a url", "https://", "http://[::1", "https://a b/"})
    EXPECT_FALSE(std::get<0>(caller.call<bool>("urlIsTrustedByURLBag", text))) << text;
}

TEST_F(ListenerTest, RefusesArgumentsOutsideTheirDomainByName) {
  TestCaller caller;
  const auto refusal = [&](const char* member, const auto&... arguments) {
    const auto [name, text] = caller.errorOn(kServiceInterface, member, arguments...);
    return name == kInvalidArgs ? text : name;
  };
  const std::string tooLong(2 << 20, 'x');
  EXPECT_THAT(refusal("httpHeadersForURL", kURL, DSIDs{1, 2}, false), HasSubstr("forDSID"));
  EXPECT_THAT(refusal("setStoreFrontID", Strings{"1", "2"}), HasSubstr("storeFrontID"));
  EXPECT_THAT(refusal("valueForURLBagKey", tooLong), HasSubstr("key"));
  EXPECT_THAT(refusal("regexWithKey", "k", tooLong), HasSubstr("matchesString"));
  EXPECT_EQ(caller.errorOf("isValid", "too much"), kInvalidArgs);
  EXPECT_EQ(caller.errorOf("urlIsTrustedByURLBag", 7), kInvalidArgs);
  EXPECT_EQ(service(0)->calls().size(), 0u);
}

TEST_F(ListenerTest, RefusesAProcessThatNoDescriptorNames) {
  writeDescriptor("self.toml", "");
  TestCaller caller;
  const auto [name, text] = caller.errorOn(kServiceInterface, "isValid");
  EXPECT_EQ(name, kAccessDenied);
  EXPECT_THAT(text, HasSubstr(std::filesystem::read_symlink("/proc/self/exe").string()));
  EXPECT_EQ(caller.errorOf("deleteAllCookies"), kAccessDenied);
  EXPECT_EQ(caller.errorOf("httpHeadersForURL", kURL, DSIDs{1, 2}, false), kAccessDenied);
  EXPECT_EQ(caller.errorOn(kRemoteObject, "actAs", "x").first, kAccessDenied);
  EXPECT_EQ(caller.errorOn("com.vantor.tallowd.Status", "Describe").first, kAccessDenied);
  EXPECT_EQ(caller.errorOn("org.freedesktop.DBus.Peer", "Ping").first, "");
  EXPECT_EQ(acceptedCount(), 0u);
}

TEST_F(ListenerTest, TakesUpAChangedDescriptorAtTheNextConnection) {
  TestCaller before;
  before.call<bool>("isValid");
  recogniseThisProcess("identifier = \"com.example.changed\"\nrequired-bag-type = \"sandbox\"");
  before.call<bool>("isValid");
  TestCaller().call<bool>("isValid");
  recogniseThisProcess("store-client = false");
  TestCaller().call<bool>("isValid");
  ASSERT_EQ(acceptedCount(), 3u);
  EXPECT_EQ(accepted(0).storeClient->identifier, "com.example.self");
  EXPECT_EQ(accepted(1).storeClient->identifier, "com.example.changed");
  EXPECT_EQ(accepted(1).storeClient->requiredBagType, 2u);
  EXPECT_EQ(accepted(2).storeClient, nullptr) << "served all the same";
}

TEST_F(ListenerTest, TellsACallerWhoseReplyIsDropped) {
  prepare = [](FakeAccountService& service) { service.keepAnswers(true); };
  std::jthread dropper([this] {
    service(0)->waitForCalls(1);
    service(0)->dropKept();
  });
  EXPECT_EQ(TestCaller().errorOf("isValid"), kNoReply);
}

TEST_F(ListenerTest, BoundsTheCallsThatWaitForOneCaller) {
  prepare = [](FakeAccountService& service) { service.keepAnswers(true); };
  FloodingCaller flooder;
  constexpr int kCalls = 3000;
  for (int i = 0; i < kCalls; ++i) flooder.send("isValid");
  // Nobody else is held up, and those that do not fit are refused while the others still wait.
  std::jthread answerer([this] {
    service(1)->waitForCalls(1);
    service(1)->answerKept();
  });
  TestCaller().call<bool>("isValid");
  EXPECT_EQ(flooder.receive(kCalls - 256).at(kLimitsExceeded), kCalls - 256);
  EXPECT_EQ(service(0)->calls().size(), 256u);
  service(0)->keepAnswers(false);
  service(0)->answerKept();
  EXPECT_EQ(flooder.receive(256).at(""), 256);
  EXPECT_TRUE(flooder.isServed());
}

TEST_F(ListenerTest, ServesOthersWhileACallerDoesNotReadItsAnswers) {
  prepare = [](FakeAccountService& service) {
    service.headers = [](const auto&) { return Dictionary{{"Cookie", std::string(100000, 'c')}}; };
  };
  FloodingCaller flooder;
  ASSERT_TRUE(flooder.isServed());
  const std::size_t before = mallinfo2().uordblks;
  // More than the bus would hold for one client.
  constexpr int kCalls = 3000;
  for (int i = 0; i < kCalls; ++i) flooder.send("httpHeadersForURL", "satb", kURL, 0, 0);
  TestCaller().call<bool>("isValid");
  EXPECT_LT(mallinfo2().uordblks, before + (std::size_t{16} << 20));
  const auto answers = flooder.receive(kCalls);
  EXPECT_GT(answers.at(""), 100);
  EXPECT_LT(answers.at(""), 600);
  EXPECT_EQ(answers.at("") + answers.at(kLimitsExceeded), kCalls);
  EXPECT_TRUE(flooder.isServed()) << "it has read";
}

TEST_F(ListenerTest, BoundsTheMemoryOfCallsThatWaitForOneCallerAndForOneUser) {
  const std::string text(900 << 10, 'x');
  constexpr std::size_t kMostOfOne = 36, kMostOfAll = 72;  // 32 and 64 MiB
  FloodingCaller flooders[3];
  const auto flood = [&](std::size_t caller, std::size_t calls, std::size_t accepted) {
    EXPECT_TRUE(flooders[caller].isServed());
    service(caller)->keepAnswers(true);
    for (std::size_t sent = 0; sent < calls; ++sent)
      flooders[caller].send("regexWithKey", "ss", "key", text.c_str());
    const int refused = static_cast<int>(calls - accepted);
    if (refused > 0) {
      EXPECT_EQ(flooders[caller].receive(refused).at(kLimitsExceeded), refused);
    }
    while (service(caller)->calls().size() <= accepted) std::this_thread::yield();
  };
  flood(0, kMostOfOne + 1, kMostOfOne);
  flood(1, kMostOfOne - 4, kMostOfOne - 4);
  flood(2, 6, kMostOfAll - 2 * kMostOfOne + 4);
}

TEST_F(ListenerTest, TellsNoObserverThatDoesNotRead) {
  FloodingCaller observer;
  observer.send("addURLBagObserver", "o", "/observer");
  observer.receive(1);
  const auto told = service(0)->observers.at(0);
  const Error large = makeError("Bag", 1, std::string(1 << 20, 'x'));
  const auto isTold = [this] { return !log.mentions(2, "an observer is not told"); };
  for (int i = 0; i < 80 && isTold(); ++i) told->urlBagDidUpdateWithSuccess(false, large);
  EXPECT_FALSE(isTold());
  TestCaller().call<bool>("isValid");
}

TEST_F(ListenerTest, BoundsConnectionsOfOneUserAndObserversOfOneConnection) {
  std::vector<std::unique_ptr<TestCaller>> callers;
  for (int i = 0; i < 256; ++i) {
    callers.push_back(std::make_unique<TestCaller>());
    ASSERT_EQ(callers.back()->errorOf("isValid"), "") << i;
  }
  EXPECT_EQ(TestCaller().errorOf("isValid"), kLimitsExceeded);
  callers.pop_back();
  // Its place is free when the bus has told of its end, which no one here can see.
  while (TestCaller().errorOf("isValid") == kLimitsExceeded) std::this_thread::yield();

  TestCaller& caller = *callers.front();
  const auto path = [](int index) { return sdbus::ObjectPath("/o" + std::to_string(index)); };
  for (int i = 0; i < 64; ++i) ASSERT_EQ(caller.errorOf("addURLBagObserver", path(i)), "");
  EXPECT_EQ(caller.errorOf("addURLBagObserver", path(64)), kLimitsExceeded);
  // One that is added again is told again, and counts again.
  EXPECT_EQ(caller.errorOf("addURLBagObserver", path(0)), kLimitsExceeded);
  EXPECT_EQ(caller.errorOf("removeURLBagObserver", path(1)), "");
  EXPECT_EQ(caller.errorOf("addURLBagObserver", path(0)), "");
  EXPECT_EQ(caller.errorOf("addURLBagObserver", path(64)), kLimitsExceeded);
}

TEST_F(ListenerTest, CountsAConnectionThatHasLeftUntilItsCallsAreAnswered) {
  prepare = [](FakeAccountService& service) { service.keepAnswers(true); };
  constexpr std::size_t kMost = 256;
  for (std::size_t index = 0; index < kMost; ++index) {
    FloodingCaller caller;
    caller.send("isValid");
    service(index)->waitForCalls(1);
  }
  prepare = nullptr;
  EXPECT_EQ(TestCaller().errorOf("isValid"), kLimitsExceeded);
  service(0)->answerKept();
  // The bus may tell of the last ones' end only now.
  while (TestCaller().errorOf("isValid") == kLimitsExceeded) std::this_thread::yield();
}

TEST_F(ListenerTest, CallsTheObserversThatACallerExports) {
  ObservingCaller caller;
  caller.call<>("addURLBagObserver", sdbus::ObjectPath("/observer"));
  caller.call<>("addURLBagObserver", sdbus::ObjectPath("/observer"));
  const auto service = this->service(0);
  ASSERT_EQ(service->observers.size(), 2u);
  EXPECT_EQ(service->observers[0], service->observers[1]);  // compared by identity
  service->observers[0]->urlBagDidUpdateWithSuccess(false, makeError("Bag", 14, "not signed"));
  service->observers[0]->urlBagDidUpdateWithSuccess(true, std::nullopt);
  EXPECT_EQ(caller.updates.next(),
            std::pair(false, std::optional(makeError("Bag", 14, "not signed"))));
  EXPECT_EQ(caller.updates.next(), std::pair(true, std::optional<Error>()));

  caller.call<>("removeURLBagObserver", sdbus::ObjectPath("/observer"));
  EXPECT_THAT(service->observers, testing::IsEmpty());
  caller.call<>("removeURLBagObserver", sdbus::ObjectPath("/never/added"));
}

TEST_F(ListenerTest, ForgetsACallerWhenItLeavesTheBus) {
  auto caller = std::make_unique<ObservingCaller>();
  caller->call<>("addURLBagObserver", sdbus::ObjectPath("/observer"));
  const auto service = this->service(0);
  const auto observer = service->observers.at(0);
  caller.reset();
  service->waitForCalls(2);
  EXPECT_THAT(service->calls(), ElementsAre("addURLBagObserver", "removeURLBagObserver"));
  EXPECT_THAT(service->observers, testing::IsEmpty());
  observer->urlBagDidUpdateWithSuccess(true, std::nullopt);  // goes nowhere
  TestCaller other;
  const auto [status] = other.callOn<std::string>("com.vantor.tallowd.Status", "Describe");
  const auto connections = *(*JSON::decode(status)->dictionary())["callers"].array();
  ASSERT_EQ(connections.count(), 1u);
  EXPECT_EQ((*connections[0].dictionary())["identifier"], "com.example.self");
  EXPECT_EQ((*connections[0].dictionary())["pid"], getpid());
}

TEST_F(ListenerTest, LetsOnlyTheAllowedActAsOthers) {
  writeDescriptor("other.toml", "identifier = \"com.example.other\"\nclient-type = \"outfitter\"");
  TestCaller plain;
  EXPECT_EQ(plain.errorOn(kRemoteObject, "actAs", "com.example.other").first, kAccessDenied);
  plain.call<bool>("isValid");

  recogniseThisProcess("identifier = \"com.example.self\"\nmay-act-as-others = true");
  TestCaller actor;
  actor.call<>("addURLBagObserver", sdbus::ObjectPath("/observer"));
  EXPECT_EQ(actor.errorOn(kRemoteObject, "actAs", "com.example.nobody").first,
            "com.vantor.Error.NoSuchClient");
  actor.call<bool>("isValid");
  ASSERT_EQ(acceptedCount(), 2u);
  actor.callOn<>(kRemoteObject, "actAs", "com.example.other");
  EXPECT_THAT(service(1)->observers, testing::IsEmpty());
  actor.call<bool>("isValid");
  ASSERT_EQ(acceptedCount(), 3u);
  EXPECT_EQ(accepted(2).storeClient->identifier, "com.example.other");
  EXPECT_EQ(accepted(2).storeClient->clientType, kHSStoreClientTypeOutfitter);
  EXPECT_THAT(service(2)->calls(), ElementsAre("isValid"));
}

TEST_F(ListenerTest, AnswersAfterItHasStopped) {
  prepare = [](FakeAccountService& service) { service.keepAnswers(true); };
  FloodingCaller caller;
  caller.send("isValid");
  service(0)->waitForCalls(1);
  listener->stop();
  std::thread([this] { service(0)->answerKept(); }).join();
  EXPECT_EQ(caller.receive(1).at(""), 1);
  EXPECT_EQ(TestCaller().errorOf("isValid"), "org.freedesktop.DBus.Error.ServiceUnknown");
}

// What a service manager is told, in order.
class ServiceManager {
 public:
  explicit ServiceManager(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~ServiceManager() { end(); }

  Strings end() {
    unsetenv("NOTIFY_SOCKET");
    shutdown(_socket.get(), SHUT_RDWR);
    if (_thread.joinable()) _thread.join();
    return _told;
  }

 private:
  // Closes what comes with a message: the sender waits for that at a barrier.
  void listen() {
    std::array<char, 256> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> passed{};
    for (;;) {
      iovec part{text.data(), text.size()};
      msghdr message{};
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      message.msg_control = passed.data();
      message.msg_controllen = passed.size();
      const ssize_t length = recvmsg(_socket.get(), &message, 0);
      if (length <= 0) return;
      _told.emplace_back(text.data(), static_cast<std::size_t>(length));
      if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
        int file = -1;
        std::memcpy(&file, CMSG_DATA(header), sizeof file);
        close(file);
      }
    }
  }

  const FileDescriptor _socket{socket(AF_UNIX, SOCK_DGRAM, 0)};
  Strings _told;
  std::thread _thread{[this] { listen(); }};
};

// A manager that sees the service run starts no other, so that who calls while the service has no
// name waits for somebody to take it.
TEST_F(ListenerTest, HearsAtItsEndWhoWantedItWhileItHadNoName) {
  listener->stop();
  std::ofstream(bus.folder() / "services" / "manager.service")
      << "[D-BUS Service]\nName=" << kServiceName << "\nExec=/bin/sh -c 'exec sleep 20 >&- 2>&-'\n";
  bus.reload();
  ServiceManager manager(bus.folder() / "notify");
  listener = XPCListener::initWithMachServiceName(kServiceName, XPCListener::Bus::Session);
  listener->setDelegate(this);
  ASSERT_FALSE(listener->resume());
  std::promise<bool> isGone;
  listener->giveUpNameIf([](const XPCListener::Load&) { return true; },
                         [&](bool gone) { isGone.set_value(gone); });
  ASSERT_TRUE(isGone.get_future().get());
  FloodingCaller caller;
  caller.send("isValid");
  EXPECT_EQ(bus.ownerOf(kServiceName), 0) << "asked after the call, so that the bus has it";
  listener->stop();
  EXPECT_EQ(caller.receive(1).at(""), 1);
  EXPECT_THAT(manager.end(), ElementsAre("READY=1", "STOPPING=1", "BARRIER=1"));
}

TEST_F(ListenerTest, SaysWhenTheNameIsTaken) {
  const auto second = XPCListener::initWithMachServiceName(kServiceName, XPCListener::Bus::Session);
  second->setDelegate(this);
  const auto error = second->resume();
  ASSERT_TRUE(error);
  EXPECT_THAT(error->localizedDescription(), HasSubstr(kServiceName));
}

TEST_F(ListenerTest, TellsWhenTheBusHasGoneAway) {
  const auto other =
      XPCListener::initWithMachServiceName("com.example.other", XPCListener::Bus::Session);
  std::promise<void> gone;
  other->setDelegate(this);
  other->setInvalidationHandler([&] { gone.set_value(); });
  ASSERT_FALSE(other->resume());
  bus.stop();
  gone.get_future().wait();
  other->stop();
}

TEST_F(ListenerTest, SetsTheLogLevelAsSystemctlDoes) {
  constexpr const char* kInterface = "org.freedesktop.LogControl1";
  const auto connection = sdbus::createSessionBusConnection();
  const auto proxy = bus::makeProxy(*connection, kServiceName, "/org/freedesktop/LogControl1");
  const auto level = [&] {
    return proxy->getProperty("LogLevel").onInterface(kInterface).get<std::string>();
  };
  EXPECT_EQ(level(), "debug");
  proxy->setProperty("LogLevel").onInterface(kInterface).toValue("notice");
  EXPECT_EQ(level(), "warning");
  EXPECT_EQ(VBLogManager::sharedManager().threshold(), 2);
  EXPECT_THROW(proxy->setProperty("LogLevel").onInterface(kInterface).toValue("loud"),
               sdbus::Error);
  EXPECT_EQ(level(), "warning");
}

}  // namespace
}  // namespace tallow
