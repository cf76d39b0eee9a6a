#include "src/StoreFrontController.h"

#include <gtest/gtest.h>

#include "platform/VendBase/DefaultsKeys.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

class StoreFrontControllerTest : public ::testing::Test {
 protected:
  Value persisted(const char* domain) {
    return world.preferences.copyValue(kDefaultsStorefrontKey, domain, Preferences::User::Current,
                                       Preferences::Host::Any);
  }
  std::size_t invalidations() {
    return world.log.count(1, "BagController: Asked to invalidate all bags");
  }

  ServiceWorld world;
};

TEST_F(StoreFrontControllerTest, AChangeIsPersistedAndInvalidatesTheBagsOnce) {
  const auto client = ServiceWorld::client();
  const auto controller = StoreFrontController::storefrontControllerForClient(client);
  EXPECT_EQ(controller->storeFrontID(), std::nullopt);
  controller->setStoreFrontID("143441");
  controller->setStoreFrontID("143441");
  EXPECT_EQ(invalidations(), 1u);
  EXPECT_EQ(persisted("com.example.store"), Value("143441"));
  ServiceWorld::forgetControllers();
  EXPECT_EQ(StoreFrontController::storefrontControllerForClient(client)->storeFrontID(), "143441");
}

TEST_F(StoreFrontControllerTest, NilClearsAndIsNeverEqual) {
  const auto controller =
      StoreFrontController::storefrontControllerForClient(ServiceWorld::client());
  controller->setStoreFrontID(std::nullopt);
  EXPECT_EQ(invalidations(), 1u);
  controller->setStoreFrontIDWithInfo({{"storeFrontID", "1"}});
  EXPECT_EQ(controller->storeFrontID(), "1");
  controller->setStoreFrontIDWithInfo({{"storeFrontID", 1}});
  EXPECT_EQ(controller->storeFrontID(), std::nullopt);
  EXPECT_TRUE(persisted("com.example.store").isNil());
  EXPECT_EQ(invalidations(), 3u);
}

TEST_F(StoreFrontControllerTest, TheBrowsersDomainIsCapitalisedForWritingOnly) {
  const auto lynxa = ServiceWorld::client("com.vantor.lynxa");
  StoreFrontController::storefrontControllerForClient(lynxa)->setStoreFrontID("9");
  EXPECT_EQ(persisted("com.vantor.Lynxa"), Value("9"));
  EXPECT_TRUE(persisted("com.vantor.lynxa").isNil());
  ServiceWorld::forgetControllers();
  EXPECT_EQ(StoreFrontController::storefrontControllerForClient(lynxa)->storeFrontID(),
            std::nullopt);
}

}  // namespace
}  // namespace tallow
