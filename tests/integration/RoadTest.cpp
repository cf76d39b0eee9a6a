// The road of a typical request, over a real bus and real HTTP, with the service killed along the
// way.

#include <gmock/gmock.h>

#include <atomic>

#include "platform/Base/AtomicFile.h"
#include "tests/integration/RunningService.h"

namespace tallow {
namespace {

using testing::AllOf;
using testing::HasSubstr;

std::string buyURL(RunningService& service) {
  const Result<Value> value = service.client().valueForURLBagKey("buyProduct");
  return value && value->string() != nullptr ? *value->string() : "";
}

TEST(Road, BagCookiesAndStorefrontSurviveAKill) {
  RunningService service;
  service.stage(R"({"ping": {"storefront": "143441-1,29", "maxAge": 3600,
                             "setCookie": "ping=1; Path=/; Max-Age=9999"}})");
  const std::string buy = service.storeURL("https", "/store/buyProduct");
  EXPECT_EQ(buyURL(service), buy);
  ASSERT_TRUE(service.store().waitForRequests("/ping", 1));
  ASSERT_FALSE(service.client().consumeCookiesWithHTTPHeaders(
      {{"set-cookie", "a=1; Path=/, b=2; Path=/; Expires=Wed, 01 Jan 2098 00:00:00 GMT"}},
      service.page()));
  // The storefront's arrival invalidates the bags some time after the ping; the next lookup loads.
  while (*service.client().storeFront() != "143441-1,29") std::this_thread::yield();
  ASSERT_TRUE(service.client().loadURLBagWithType(1)->valid);
  const std::size_t loads = service.store().requests("/bag").size();

  const pid_t before = service.pid();
  service.kill();
  EXPECT_TRUE(*service.client().isValid()) << "the persisted bag";
  EXPECT_NE(service.pid(), before);
  EXPECT_EQ(buyURL(service), buy);
  EXPECT_EQ(*service.client().storeFront(), "143441-1,29");
  EXPECT_THAT(service.cookies(), AllOf(HasSubstr("a=1"), HasSubstr("b=2"), HasSubstr("ping=1")));
  EXPECT_EQ(service.store().requests("/bag").size(), loads) << "no network";
}

TEST(Road, ACallUnderWayIsAnsweredBeforeAStoppedServiceLeaves) {
  RunningService service;
  service.stage(R"({"bag": {"hang": true}})");
  const auto other = RunningService::connect();
  std::optional<bool> isValid;
  std::thread caller([&] {
    if (const auto loaded = other->loadURLBagWithType(1)) isValid = loaded->valid;
  });
  ASSERT_TRUE(service.store().waitForRequests("/bag", 1));
  const pid_t stopped = service.pid();
  ::kill(stopped, SIGTERM);
  while (service.pid() == stopped) std::this_thread::yield();
  service.stage(R"({"reset": true})");
  caller.join();
  EXPECT_EQ(isValid, true);
  EXPECT_EQ(buyURL(service), service.storeURL("https", "/store/buyProduct")) << "started again";
}

TEST(Road, WhatAHostileStoreSendsIsRefusedAndTheOldBagStays) {
  RunningService service("http");
  const std::string good = service.storeURL("https", "/store/buyProduct");
  ASSERT_EQ(buyURL(service), good);
  const Data copy = *readFile(service.persistedBag());
  for (const char* bag : {R"({"signature": "flip"})",
                          R"({"signature": "missing"})",
                          R"({"signature": "wrong-key"})",
                          R"({"signature": "wrong-type"})",
                          R"({"flipByte": 0})",
                          R"({"flipByte": 1000})",
                          R"({"chain": "expired"})",
                          R"({"chain": "self-signed"})",
                          R"({"chain": "wrong-anchor"})",
                          R"({"chain": "too-long"})",
                          R"({"chain": "weak-digest"})",
                          R"({"chain": "trailing-byte"})",
                          R"({"wrap": "unsigned-dictionary"})",
                          R"({"wrap": "bare"})",
                          R"({"status": 503})",
                          R"({"text": "not a list"})",
                          R"({"plist": ["a", "list"]})",
                          R"({"truncateAt": 700})",
                          R"({"size": 17825792})",
                          R"({"nest": 100000})",
                          R"({"redirectTo": "/redirect/loop"})",
                          R"({"redirectTo": "http://store.example.net/bag"})"}) {
    SCOPED_TRACE(bag);
    service.stage(std::string(R"({"bag": )") + bag + "}");
    ASSERT_FALSE(service.client().invalidateAllBags());
    EXPECT_FALSE(service.client().loadURLBagWithType(1)->valid);
    EXPECT_EQ(buyURL(service), "");
    EXPECT_EQ((**service.client().dictionary())["buyProduct"], Value(good));
  }
  EXPECT_EQ(*readFile(service.persistedBag()), copy);
  service.stage(R"({"reset": true})");
  EXPECT_EQ(buyURL(service), good);
}

TEST(Road, DamagedFilesAreSetAsideAndTheServiceGoesOn) {
  RunningService service;
  const auto setCookie = [&](const char* cookie) {
    EXPECT_FALSE(
        service.client().consumeCookiesWithHTTPHeaders({{"Set-Cookie", cookie}}, service.page()));
  };
  buyURL(service);
  setCookie("a=1; Path=/");
  service.kill();
  for (const auto& file :
       {service.persistedBag(), service.cookieFile(), service.configHome() / "preferences.db"})
    std::ofstream(file, std::ios::trunc) << "this is not what it should be, not at all, really";
  EXPECT_EQ(buyURL(service), service.storeURL("https", "/store/buyProduct"));
  EXPECT_FALSE(service.client().setStoreFrontID("1"));
  setCookie("b=2; Path=/");
  service.kill();
  EXPECT_EQ(*service.client().storeFront(), "1");
  EXPECT_THAT(service.cookies(), HasSubstr("b=2"));
  EXPECT_TRUE(std::filesystem::exists(service.persistedBag().native() + ".corrupt"));
}

// Whatever the service has said yes to is there after it was killed at a moment of nobody's
// choosing.
TEST(Road, NothingAcknowledgedIsLostWhenKilledInTheMiddleOfWrites) {
  RunningService service;
  const std::unique_ptr<AccountServiceClient> writer = RunningService::connect();
  constexpr int kRounds = 8;
  std::atomic<int> acknowledged = 0;
  int sent = 0;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_FALSE(service.client().deleteAllCookies());  // which starts it
    const pid_t pid = service.pid();
    const int killAt = acknowledged + 3 + round;
    std::thread killer([&] {
      while (acknowledged < killAt) std::this_thread::yield();
      ::kill(pid, SIGKILL);  // while the next ones are being written
    });
    // Until one is not answered: its fate is open, that of those before it is not.
    std::vector<int> promised;
    while (!writer->consumeCookiesWithHTTPHeaders(
        {{"Set-Cookie", "c" + std::to_string(sent) + "=1; Path=/; Max-Age=9999"}},
        service.page())) {
      promised.push_back(sent++);
      ++acknowledged;
      if (acknowledged > killAt + 100) break;  // the kill fell between two calls
    }
    ++sent;
    killer.join();
    const std::string header = "; " + service.cookies() + ";";
    for (const int each : promised)
      EXPECT_THAT(header, HasSubstr("; c" + std::to_string(each) + "=1;")) << "in round " << round;
  }
}

}  // namespace
}  // namespace tallow
