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

template <class Work>
void onFourThreads(const Work& work) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) threads.emplace_back(work, thread);
  for (std::thread& thread : threads) thread.join();
}

TEST(BaseConcurrentTest, SharedFacilitiesAreMadeOnce) {
  onFourThreads([](int) {
    EXPECT_GT(Clock::shared().now().secondsSince1970, 0);
    EXPECT_LT(Random::shared().unit(), 1);
    EXPECT_FALSE(Directories::shared().configDirs.empty());
    EXPECT_EQ(URL::parse("https://b\xC3\xBC"
                         "cher.example/")
                  ->host(),
              "xn--bcher-kva.example");
  });
}

TEST(BaseConcurrentTest, OneExpressionServesManyThreads) {
  const auto expression = RegularExpression::compile("(\\d+)-\\1$", {});
  ASSERT_TRUE(expression);
  onFourThreads([&](int thread) {
    const std::string number = std::to_string(thread * 1111 + 7);
    for (int round = 0; round < 200; ++round) {
      EXPECT_EQ(expression->firstMatchIn(number + "-" + number), RegularExpression::Match::Found);
      EXPECT_EQ(expression->firstMatchIn(number + "-x" + number),
                RegularExpression::Match::NotFound);
    }
  });
}

TEST(BaseConcurrentTest, ValuesAreReadAndCopiedByAll) {
  const Value shared = Dictionary{{"a", Array{1, "two", Data("three")}}, {"b", "text"}};
  onFourThreads([&](int thread) {
    for (int round = 0; round < 200; ++round) {
      const Value copy = shared;
      const Dictionary changed = copy.dictionary()->setting("c", thread);
      EXPECT_EQ(changed["c"], Value(thread));
      const auto format = round % 2 == 0 ? PropertyList::Format::XML : PropertyList::Format::Binary;
      EXPECT_EQ(*PropertyList::decode(PropertyList::encode(copy, format)), shared);
    }
  });
}

}  // namespace
}  // namespace tallow
