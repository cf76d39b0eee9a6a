// The base facilities from many threads at once; above all their first uses, and what they share.

#include <gmock/gmock.h>

#include <string>

#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/Random.h"
#include "platform/Base/RegularExpression.h"
#include "platform/Base/URL.h"
#include "platform/PropertyList/PropertyList.h"
#include "tests/support/ManyThreads.h"

namespace tallow {
namespace {

TEST(BaseConcurrentTest, FirstUsesAndSharedObjectsAreForManyThreads) {
  const auto expression = RegularExpression::compile("(\\d+)-\\1$", {});
  const Value shared = Dictionary{{"a", Array{1, "two", Data("three")}}, {"b", "text"}};
  onManyThreads(4, [&](int thread) {
    const std::string number = std::to_string(thread * 1111 + 7);
    EXPECT_GT(Clock::shared().now().secondsSince1970, 0);
    EXPECT_LT(Random::shared().unit(), 1);
    EXPECT_FALSE(Directories::shared().configDirs.empty());
    EXPECT_EQ(URL::parse("https://b%C3%BCcher.example/")->host(), "xn--bcher-kva.example");
    for (int round = 0; round < 200; ++round) {
      using enum RegularExpression::Match;
      EXPECT_EQ(expression->firstMatchIn(number + "-" + number), Found);
      EXPECT_EQ(expression->firstMatchIn(number + "-x" + number), NotFound);
      const Value copy = shared;
      EXPECT_EQ(copy.dictionary()->setting("c", round)["c"], Value(round));
      const auto format = round % 2 == 0 ? PropertyList::Format::XML : PropertyList::Format::Binary;
      EXPECT_EQ(*PropertyList::decode(PropertyList::encode(copy, format)), shared);
    }
  });
}

}  // namespace
}  // namespace tallow
