#include "platform/Cookies/CookieIndex.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <set>
#include <string>

namespace tallow {
namespace {

// Names come and go at random; the index always knows exactly those that are there.
TEST(CookieIndex, AgreesWithASet) {
  CookieIndex index;
  std::set<std::string> names;
  std::mt19937 random(7);
  const auto anyName = [&] {
    return "h" + std::to_string(std::uniform_int_distribution(0, 120)(random)) + ".example";
  };
  for (int step = 0; step < 6'000; ++step) {
    const std::string name = anyName();
    const bool shrinking = step % 1'500 > 1'200;
    if (std::uniform_int_distribution(0, 9)(random) < (shrinking ? 2 : 6)) {
      EXPECT_EQ(index.findOrInsert(name).name(), name);
      names.insert(name);
    } else {
      index.erase(name);
      names.erase(name);
    }
    std::array<CookieIndex::Query, 3> queries;
    const std::array<std::string, 3> asked = {name, anyName(), anyName()};
    for (std::size_t i = 0; i < asked.size(); ++i) queries[i].name = asked[i];
    index.find(queries);
    for (std::size_t i = 0; i < asked.size(); ++i) {
      ASSERT_EQ(queries[i].domain != nullptr, names.contains(asked[i])) << asked[i];
      ASSERT_EQ(queries[i].domain, index.find(asked[i]));
    }
  }
  std::set<std::string> found;
  index.forEach([&](const CookieDomain& domain) { found.emplace(domain.name()); });
  EXPECT_EQ(found, names);
  index.clear();
  EXPECT_EQ(index.find(*names.begin()), nullptr);
}

}  // namespace
}  // namespace tallow
