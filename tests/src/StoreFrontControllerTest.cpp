#include "src/StoreFrontController.h"

#include "platform/VendBase/DefaultsKeys.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

class StoreFrontControllerTest : public ServiceTest {
 protected:
  std::shared_ptr<StoreFrontController> controller() const {
    return StoreFrontController::storefrontControllerForClient(client);
  }
  std::size_t invalidations() const {
    return world.log.count(1, "BagController: Asked to invalidate all bags");
  }
};

TEST_F(StoreFrontControllerTest, AChangeIsPersistedAndInvalidatesTheBagsAndNilIsAlwaysOne) {
  EXPECT_EQ(controller()->storeFrontID(), std::nullopt);
  controller()->setStoreFrontID("143441");
  controller()->setStoreFrontID("143441");
  EXPECT_EQ(invalidations(), 1u);
  EXPECT_EQ(world.stored(kDefaultsStorefrontKey), Value("143441"));
  ServiceWorld::forgetControllers();
  EXPECT_EQ(controller()->storeFrontID(), "143441");

  controller()->setStoreFrontIDWithInfo({{"storeFrontID", "1"}});
  EXPECT_EQ(controller()->storeFrontID(), "1");
  controller()->setStoreFrontIDWithInfo({{"storeFrontID", 1}});
  EXPECT_EQ(controller()->storeFrontID(), std::nullopt);
  EXPECT_TRUE(world.stored(kDefaultsStorefrontKey).isNil());
  EXPECT_EQ(invalidations(), 3u);
  controller()->setStoreFrontID(std::nullopt);
  EXPECT_EQ(invalidations(), 4u) << "nil is never equal";
}

TEST_F(StoreFrontControllerTest, TheBrowsersDomainIsCapitalisedForWritingOnly) {
  client = ServiceWorld::client("com.vantor.lynxa");
  controller()->setStoreFrontID("9");
  EXPECT_EQ(world.stored(kDefaultsStorefrontKey, "com.vantor.Lynxa"), Value("9"));
  EXPECT_TRUE(world.stored(kDefaultsStorefrontKey, "com.vantor.lynxa").isNil());
  ServiceWorld::forgetControllers();
  EXPECT_EQ(controller()->storeFrontID(), std::nullopt);
}

}  // namespace
}  // namespace tallow
