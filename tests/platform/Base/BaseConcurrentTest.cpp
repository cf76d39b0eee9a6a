// The base facilities from many threads at once; above all their first uses, and what they share.

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/Random.h"
#include "platform/Base/RegularExpression.h"
#include "platform/Base/URL.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow {
namespace {

TEST(BaseConcurrentTest, FirstUsesAndSharedObjectsAreForManyThreads) {
  const auto expression = RegularExpression::compile("(\\d+)-\\1$", {});
  const Value shared = Dictionary{{"a", Array{1, "two", Data("three")}}, {"b", "text"}};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, number = std::to_string(thread * 1111 + 7)] {
      EXPECT_GT(Clock::shared().now().secondsSince1970, 0);
      EXPECT_LT(Random::shared().unit(), 1);
      EXPECT_FALSE(Directories::shared().configDirs.empty());
      EXPECT_EQ(URL::parse("https://b%C3%BCcher.example/")->host(), "xn--bcher-kva.example");
      for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(expression->firstMatchIn(number + "-" + number), RegularExpression::Match::Found);
        EXPECT_EQ(expression->firstMatchIn(number + "-x" + number),
                  RegularExpression::Match::NotFound);
        const Value copy = shared;
        EXPECT_EQ(copy.dictionary()->setting("c", round)["c"], Value(round));
        const auto format =
            round % 2 == 0 ? PropertyList::Format::XML : PropertyList::Format::Binary;
        EXPECT_EQ(*PropertyList::decode(PropertyList::encode(copy, format)), shared);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace tallow
