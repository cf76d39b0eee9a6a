#include "platform/Base/Format.h"

#include <gmock/gmock.h>

#include <limits>
#include <memory>
#include <string>

#include "platform/Base/Error.h"
#include "platform/Base/URL.h"
#include "platform/Base/Value.h"

namespace tallow {
namespace {

enum class Mode { Off = 0, On = 7 };

TEST(FormatTest, ConvertsEveryKindOfArgument) {
  EXPECT_EQ(format("%@: %s %@ 100%%", "Bag", std::string("x"), std::string_view("y")),
            "Bag: x y 100%");
  EXPECT_EQ(
      format("%d %i %li %lu %u", -1, true, 5L, std::numeric_limits<std::uint64_t>::max(), Mode::On),
      "-1 1 5 18446744073709551615 7");
  EXPECT_EQ(format("%li", std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(format("%.2f|%f|%.0f|%@", 1.005, -2.5, 0.5, 0.5), "1.00|-2.500000|0|0.5");
  EXPECT_EQ(format("%.2f", -std::numeric_limits<double>::max()).size(), 313u);
  EXPECT_EQ(format("%.99999999999f", 1.0), "1.00000000000000000000");
  EXPECT_EQ(format("%@ %@", Mode::On, 12u), "7 12");
}

TEST(FormatTest, ObjectsGiveTheirDescriptionAndNilIsNull) {
  const auto url = URL::parse("https://h/a%20b");
  const std::optional<Error> error = makeError("Domain", 3, "Text");
  const std::shared_ptr<const Value> shared = std::make_shared<const Value>(Array{1, "a\"b"});
  EXPECT_EQ(format("%@", url), "https://h/a%20b");
  EXPECT_EQ(format("%@", error), "Text (Domain error 3)");
  EXPECT_EQ(format("%@", shared), "(1, \"a\\\"b\")");
  EXPECT_EQ(format("%@", Value("plain \"text\"")), "plain \"text\"");
  EXPECT_EQ(format("%@", Dictionary{{"k", Dictionary{{"d", Data("\x01\xff")}}}}),
            "{\"k\" = {\"d\" = <01ff>}}");
  EXPECT_EQ(format("%@", Date{1772368200.75}), "2026-03-01 12:30:00 +0000");
  EXPECT_EQ(format("%@ %@ %@ %@ %@ %@", std::optional<URL>(), nullptr, std::nullopt, Value(),
                   std::shared_ptr<Error>(), static_cast<const char*>(nullptr)),
            "(null) (null) (null) (null) (null) (null)");
  EXPECT_EQ(format("%@", Error{"Domain", -5, {}}), "Domain error -5");
}

TEST(FormatTest, HostileArgumentsAreCutAndNeverFormatsThemselves) {
  EXPECT_EQ(format("%@", "%s%n%@"), "%s%n%@");
  const std::string long1 = std::string(65'535, 'a') + "\xC3\xA9" + std::string(100, 'b');
  EXPECT_EQ(format("[%@]", long1), "[" + std::string(65'535, 'a') + "...]");
  Value deep = 1;
  for (int depth = 0; depth < 2000; ++depth) deep = Array{deep, deep};
  EXPECT_LT(format("%@", deep).size(), 20'000u);
  EXPECT_THAT(format("%@", Data(std::string(1000, 'x'))), testing::HasSubstr("... 1000 bytes>"));
}

TEST(FormatDeathTest, AFormatThatEscapedTheCompilerAborts) {
  const FormatArgument number = FormatArgument::make(1);
  for (const char* unfit : {"%s", "%d %d", "x", "%l"})
    EXPECT_DEATH(formatText(unfit, {&number, 1}), "does not fit") << unfit;
}

}  // namespace
}  // namespace tallow
