#include "src/BagController.h"

#include <atomic>
#include <future>
#include <thread>

#include "platform/VendBase/DefaultsKeys.h"
#include "tests/support/AnswerOf.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

class RecordingObserver final : public HSURLBagObserver {
 public:
  void urlBagDidUpdateWithSuccess(bool success, const std::optional<Error>& error) override {
    updates.emplace_back(success, error.has_value());
  }
  std::vector<std::pair<bool, bool>> updates;
};

class BagControllerTest : public ServiceTest {
 protected:
  // Bags come from bag.example.com, pings go to ping.example.com and are answered as set here.
  void serveBagWithPings(const Array& pingURLs) {
    const auto ping = [this](const HTTPRequest& request) {
      pinged.push_back(request.url.path());
      if (request.url.path() == "/fails") return ScriptedTransport::response(request, 500);
      return ScriptedTransport::response(request, 200, pingHeaders);
    };
    world.serveBag({{"pingUrls", pingURLs}, {"a", 1}}, ping, bagHeaders);
  }
  std::shared_ptr<BagController> controller() {
    return BagController::bagControllerForClient(client);
  }
  Value nextPingDate() {
    return world.preferences.copyAppValue(kDefaultsNextClientIDPingDateKey, kDaemonDefaultsID);
  }
  void loadBag() {
    bag()->invalidate();
    bag()->valueForKey("a");
    ServiceWorld::settle();
  }

  const std::shared_ptr<HSStoreClient> outfitter =
      ServiceWorld::client("com.example.outfitter", kHSStoreClientTypeOutfitter);
  HTTPHeaderList bagHeaders = {{"Cache-Control", "max-age=3600"}};
  HTTPHeaderList pingHeaders;
  std::vector<std::string> pinged;
};

TEST_F(BagControllerTest, RegistryKeepsOneControllerAClientAndReplacesOnlyChangedOutfitters) {
  const auto nameless = std::make_shared<HSStoreClient>();
  EXPECT_EQ(BagController::bagControllerForClient(nameless), nullptr);
  EXPECT_TRUE(world.log.mentions(1,
                                 "BagController: bagControllerForClient: called with nil "
                                 "storeClient.identifier"));
  const auto first = controller();
  EXPECT_EQ(BagController::bagControllerForClient(ServiceWorld::changed(*client)), first);

  world.serve({{"a", 1}});
  const auto old = BagController::bagControllerForClient(outfitter);
  EXPECT_EQ(BagController::bagControllerForClient(outfitter), old);
  auto changedOutfitter = ServiceWorld::changed(*outfitter);
  const auto replaced = BagController::bagControllerForClient(changedOutfitter);
  EXPECT_NE(replaced, old);
  EXPECT_TRUE(replaced->bagWithType(kBagTypeProduction)->isValid()) << "reloaded before returning";
  EXPECT_FALSE(replaced->bagWithType(kBagTypeSandbox)->isValid());
  EXPECT_TRUE(
      world.log.contains(1, "BagController: Outfitter is updated, controller is switching"));

  // Who connected before the change does not switch back.
  changedOutfitter = ServiceWorld::changed(*changedOutfitter, "changed again");
  changedOutfitter->descriptorReading = 2;
  const auto newest = BagController::bagControllerForClient(changedOutfitter);
  EXPECT_NE(newest, replaced);
  EXPECT_EQ(BagController::bagControllerForClient(outfitter), newest);
  EXPECT_EQ(BagController::bagControllerForClientIfAtHand(outfitter), newest);
}

TEST_F(BagControllerTest, ObserversHearOfSuccessAndFailureOfTheirBag) {
  const auto observer = std::make_shared<RecordingObserver>();
  const auto subject = controller();
  EXPECT_EQ(subject->bagWithType(0), nullptr);
  EXPECT_EQ(subject->bagWithType(3), nullptr);
  subject->addBagObserver(observer, 3);
  subject->addBagObserver(nullptr, kBagTypeProduction);
  subject->addBagObserver(observer, kBagTypeProduction);
  // As a caller does.
  const auto interface = std::make_shared<AccountServiceInterface>(client);
  answerOf(*interface, &HSAccountService::addURLBagObserver, observer);
  world.serve({{"a", 1}});
  loadBag();
  world.transport.setHandler(ScriptedTransport::fail(HTTPTransport::kCannotConnect));
  loadBag();
  subject->removeBagObserver(observer, kBagTypeProduction);
  loadBag();
  const std::pair updated(true, false), failed(false, true);
  EXPECT_EQ(observer->updates, (std::vector{updated, updated, failed, failed}));
}

TEST_F(BagControllerTest, APingSetsTheStorefrontACookieAndTheDateOfTheNext) {
  serveBagWithPings({"https://ping.example.com/ping"});
  pingHeaders = {{"x-set-vantor-store-front", "143441-1,29"},
                 {"Set-Cookie", "id=7"},
                 {"Cache-Control", "max-age=100"}};
  loadBag();
  EXPECT_TRUE(world.log.contains(3, "BagController: setCookie id=7"));
  const auto storage = CookieStorage::storageForClient(client);
  EXPECT_EQ(storage->httpHeadersForURL(URL::parse("https://ping.example.com/x"))["Cookie"],
            Value("id=7"));
  EXPECT_EQ(storage->cookieCount(), 1u) << "with the response, not through the wrapper, too";
  EXPECT_EQ(StoreFrontController::storefrontControllerForClient(client)->storeFrontID(),
            "143441-1,29");
  EXPECT_FALSE(bag()->isValid()) << "a new storefront makes the bags stale";
  EXPECT_EQ(nextPingDate(), Value(world.clock.now().addingSeconds(100)));

  loadBag();
  EXPECT_EQ(pinged.size(), 1u) << "too soon";
  EXPECT_TRUE(world.log.mentions(1, "BagController: Too soon to ping (Next="));
  world.clock.advance(100);
  loadBag();
  EXPECT_EQ(pinged.size(), 2u);
}

TEST_F(BagControllerTest, AFailedPingEndsThePassAndAStoredStringIsNoDate) {
  world.write(kDefaultsNextClientIDPingDateKey, "2099", kDaemonDefaultsID);
  serveBagWithPings({"https://ping.example.com/first", "https://ping.example.com/fails",
                     "https://ping.example.com/third"});
  pingHeaders = {{"Cache-Control", "max-age=7"}};
  loadBag();
  EXPECT_EQ(pinged, (std::vector<std::string>{"/first", "/fails"}));
  EXPECT_EQ(nextPingDate(), Value(world.clock.now().addingSeconds(7)));
  EXPECT_TRUE(
      world.log.mentions(1, "BagController: Failed to ping https://ping.example.com/fails"));
}

TEST_F(BagControllerTest, ARefusedBagIsFetchedOnceALookupNotWithoutAnEnd) {
  serveBagWithPings({"https://ping.example.com/ping"});
  loadBag();
  client->productionBagURLs = {*URL::parse("http://bag.example.com/unsigned")};
  const std::size_t before = world.transport.requests().size();
  loadBag();
  EXPECT_FALSE(bag()->isValid());
  EXPECT_EQ(world.transport.requests().size(), before + 1);
  EXPECT_TRUE(world.log.contains(3, "BagController: Not pinging clientID, no pingUrls"));
}

// What a load brings must not lock up the load: its cookies and storefront reach the jar and the
// storefront controller, which ask for the bag controller again, while this thread holds the bag's
// queue and, for a changed Outfitter client, the controller registry as well.
class LoadThatBringsThingsTest : public BagControllerTest {
 protected:
  LoadThatBringsThingsTest() {
    bagHeaders = {{"Cache-Control", "max-age=3600"},
                  {"Set-Cookie", "session=1"},
                  {"X-Set-Vantor-Store-Front", "143443-2"}};
    serveBagWithPings({});
  }
  void expectTaken(const std::shared_ptr<HSStoreClient>& by) {
    ServiceWorld::settle();
    EXPECT_EQ(StoreFrontController::storefrontControllerForClient(by)->storeFrontID(), "143443-2");
    EXPECT_EQ(CookieStorage::storageForClient(by)->httpHeadersForURL(
                  URL::parse("https://bag.example.com/"))["Cookie"],
              Value("session=1"));
  }
};

TEST_F(LoadThatBringsThingsTest, AnOrdinaryLoadTakesThemInFirstAndEndsValid) {
  EXPECT_EQ(bag()->valueForKey("a"), Value(1));
  EXPECT_TRUE(bag()->isValid()) << "its own cookies invalidate the old bag, not the new one";
  expectTaken(client);
  EXPECT_EQ(world.transport.requests().size(), 1u);
}

TEST_F(LoadThatBringsThingsTest, AForcedReloadUnderTheRegistryLockEnds) {
  // Two URLs: the second request must not stand behind what the first one handed in.
  outfitter->productionBagURLs = {*URL::parse("https://bag.example.com/redirecting"),
                                  *URL::parse("https://bag.example.com/bag")};
  BagController::bagControllerForClient(outfitter);
  world.transport.enqueue([this](const HTTPRequest& request) {
    HTTPHeaderList headers = bagHeaders;
    headers.emplace_back("Location", "https://bag.example.com/elsewhere");
    return ScriptedTransport::response(request, 302, headers);
  });
  world.transport.enqueue(ScriptedTransport::fail(HTTPTransport::kConnectionLost));
  const auto changed = ServiceWorld::changed(*outfitter);
  const auto replaced = BagController::bagControllerForClient(changed);
  EXPECT_EQ(replaced->bagWithType(kBagTypeProduction)->dictionary()->count(), 2u);
  expectTaken(changed);
}

TEST_F(LoadThatBringsThingsTest, OtherCallersWaitOutAForcedReload) {
  BagController::bagControllerForClient(outfitter);
  const auto changed = ServiceWorld::changed(*outfitter);
  world.transport.hold();
  std::thread reloading([&] { BagController::bagControllerForClient(changed); });
  world.transport.waitForRequests(1);
  EXPECT_EQ(BagController::bagControllerForClientIfAtHand(client), nullptr);
  auto waiting =
      std::async(std::launch::async, [&] { return BagController::bagControllerForClient(client); });
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  world.transport.release();
  EXPECT_NE(waiting.get(), nullptr);
  reloading.join();
  expectTaken(changed);
}

}  // namespace
}  // namespace tallow
