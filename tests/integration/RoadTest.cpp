// The road of a typical request, over a real bus and real HTTP, with the service killed along the
// way.

#include <gtest/gtest.h>

#include <atomic>

#include "platform/Base/AtomicFile.h"
#include "tests/integration/RunningService.h"
#include "tests/support/Heard.h"

namespace tallow {
namespace {

std::string buyURL(RunningService& service) {
  const Result<Value> value = service.client().valueForURLBagKey("buyProduct");
  return value && value->string() != nullptr ? *value->string() : "";
}

TEST(Road, BagCookiesAndStorefrontSurviveAKill) {
  RunningService service;
  ASSERT_FALSE(service.store().stage(
      R"({"ping": {"storefront": "143441-1,29", "setCookie": "ping=1; Path=/; Max-Age=9999",
          "maxAge": 3600}})"));
  EXPECT_EQ(buyURL(service), service.storeURL("https", "/store/buyProduct"));
  ASSERT_TRUE(service.store().waitForRequests("/ping", 1));

  const std::string page = service.storeURL("https", "/store/page");
  ASSERT_FALSE(service.client().consumeCookiesWithHTTPHeaders(
      {{"set-cookie", "a=1; Path=/, b=2; Path=/; Expires=Wed, 01 Jan 2098 00:00:00 GMT"}}, page));
  // The storefront's arrival invalidates the bags some time after the ping; the next lookup loads.
  while (*service.client().storeFront() != "143441-1,29") std::this_thread::yield();
  ASSERT_TRUE(service.client().loadURLBagWithType(1)->valid);
  const std::size_t loads = service.store().requests("/bag").size();

  const pid_t before = service.pid();
  service.kill();
  EXPECT_TRUE(*service.client().isValid()) << "the persisted bag";
  EXPECT_NE(service.pid(), before);
  EXPECT_EQ(buyURL(service), service.storeURL("https", "/store/buyProduct"));
  EXPECT_EQ(*service.client().storeFront(), "143441-1,29");
  const Value cookies = (*service.client().httpHeadersForURL(page, {}, true))["Cookie"];
  ASSERT_NE(cookies.string(), nullptr);
  for (const char* each : {"a=1", "b=2", "ping=1"})
    EXPECT_NE(cookies.string()->find(each), std::string::npos) << each;
  EXPECT_EQ(service.store().requests("/bag").size(), loads) << "no network";
}

TEST(Road, ACallUnderWayIsAnsweredBeforeAStoppedServiceLeaves) {
  RunningService service;
  ASSERT_FALSE(service.store().stage(R"({"bag": {"hang": true}})"));
  const auto other = RunningService::connect();
  std::optional<bool> isValid;
  std::thread caller([&] {
    if (const auto loaded = other->loadURLBagWithType(1)) isValid = loaded->valid;
  });
  ASSERT_TRUE(service.store().waitForRequests("/bag", 1));
  const pid_t stopped = service.pid();
  ::kill(stopped, SIGTERM);
  while (service.pid() == stopped) std::this_thread::yield();
  ASSERT_FALSE(service.store().stage(R"({"reset": true})"));
  caller.join();
  EXPECT_EQ(isValid, true);
  EXPECT_EQ(buyURL(service), service.storeURL("https", "/store/buyProduct")) << "started again";
}

TEST(Road, ObserversHearOfUpdatesAndFailures) {
  RunningService service;
  Heard<bool> updates;
  ASSERT_FALSE(service.client().observeURLBag(
      [&](bool success, const std::optional<Error>&) { updates.note(success); }));
  buyURL(service);
  EXPECT_TRUE(updates.next());
  ASSERT_FALSE(service.store().stage(R"({"bag": {"status": 500}})"));
  ASSERT_FALSE(service.client().invalidateAllBags());
  EXPECT_EQ(buyURL(service), "");
  EXPECT_FALSE(updates.next());
}

TEST(Road, WhatAHostileStoreSendsIsRefusedAndTheOldBagStays) {
  RunningService service("http");
  const std::string good = service.storeURL("https", "/store/buyProduct");
  ASSERT_EQ(buyURL(service), good);
  const Data copy = *readFile(service.persistedBag());
  for (const char* staged : {R"({"bag": {"signature": "flip"}})",
                             R"({"bag": {"signature": "missing"}})",
                             R"({"bag": {"signature": "wrong-key"}})",
                             R"({"bag": {"signature": "wrong-type"}})",
                             R"({"bag": {"flipByte": 0}})",
                             R"({"bag": {"flipByte": 1000}})",
                             R"({"bag": {"chain": "expired"}})",
                             R"({"bag": {"chain": "self-signed"}})",
                             R"({"bag": {"chain": "wrong-anchor"}})",
                             R"({"bag": {"chain": "too-long"}})",
                             R"({"bag": {"chain": "weak-digest"}})",
                             R"({"bag": {"chain": "trailing-byte"}})",
                             R"({"bag": {"wrap": "unsigned-dictionary"}})",
                             R"({"bag": {"wrap": "bare"}})",
                             R"({"bag": {"status": 503}})",
                             R"({"bag": {"text": "not a list"}})",
                             R"({"bag": {"plist": ["a", "list"]}})",
                             R"({"bag": {"truncateAt": 700}})",
                             R"({"bag": {"size": 17825792}})",
                             R"({"bag": {"nest": 100000}})",
                             R"({"bag": {"redirectTo": "/redirect/loop"}})",
                             R"({"bag": {"redirectTo": "http://store.example.net/bag"}})"}) {
    ASSERT_FALSE(service.store().stage(staged)) << staged;
    ASSERT_FALSE(service.client().invalidateAllBags());
    EXPECT_FALSE(service.client().loadURLBagWithType(1)->valid) << staged;
    EXPECT_EQ(buyURL(service), "") << staged;
    EXPECT_EQ((**service.client().dictionary())["buyProduct"], Value(good)) << staged;
  }
  EXPECT_EQ(*readFile(service.persistedBag()), copy);
  ASSERT_FALSE(service.store().stage(R"({"reset": true})"));
  EXPECT_EQ(buyURL(service), good);
}

TEST(Road, DamagedFilesAreSetAsideAndTheServiceGoesOn) {
  RunningService service;
  const std::string page = service.storeURL("https", "/store/page");
  buyURL(service);
  ASSERT_FALSE(
      service.client().consumeCookiesWithHTTPHeaders({{"Set-Cookie", "a=1; Path=/"}}, page));
  service.kill();
  for (const auto& file :
       {service.persistedBag(), service.cookieFile(), service.configHome() / "preferences.db"})
    std::ofstream(file, std::ios::trunc) << "this is not what it should be, not at all, really";
  EXPECT_EQ(buyURL(service), service.storeURL("https", "/store/buyProduct"));
  EXPECT_FALSE(service.client().setStoreFrontID("1"));
  EXPECT_FALSE(
      service.client().consumeCookiesWithHTTPHeaders({{"Set-Cookie", "b=2; Path=/"}}, page));
  service.kill();
  EXPECT_EQ(*service.client().storeFront(), "1");
  EXPECT_NE((*service.client().httpHeadersForURL(page, {}, false))["Cookie"].string()->find("b=2"),
            std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(service.persistedBag().native() + ".corrupt"));
}

// Whatever the service has said yes to is there after it was killed at a moment of nobody's
// choosing.
TEST(Road, NothingAcknowledgedIsLostWhenKilledInTheMiddleOfWrites) {
  RunningService service;
  const std::string page = service.storeURL("https", "/store/page");
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
        {{"Set-Cookie", "c" + std::to_string(sent) + "=1; Path=/; Max-Age=9999"}}, page)) {
      promised.push_back(sent++);
      ++acknowledged;
      if (acknowledged > killAt + 100) break;  // the kill fell between two calls
    }
    ++sent;
    killer.join();
    const Value cookies = (*service.client().httpHeadersForURL(page, {}, false))["Cookie"];
    ASSERT_NE(cookies.string(), nullptr);
    const std::string header = "; " + *cookies.string() + ";";
    for (const int each : promised) {
      const std::string cookie = "; c" + std::to_string(each) + "=1;";
      EXPECT_NE(header.find(cookie), std::string::npos) << each << " in round " << round;
    }
  }
}

}  // namespace
}  // namespace tallow
