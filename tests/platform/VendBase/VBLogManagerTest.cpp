#include "platform/VendBase/VBLogManager.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/JournalLogSink.h"
#include "platform/VendBase/LogText.h"
#include "platform/VendBase/StandardErrorLogSink.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ManyThreads.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

TEST(LogTextTest, EscapesWhateverCouldForgeALineOrDriveATerminal) {
  EXPECT_EQ(LogText::escaped("plain % text \\ \"quoted\""), "plain % text \\ \"quoted\"");
  EXPECT_EQ(LogText::escaped("Grüße 世界 🐄"), "Grüße 世界 🐄");
  EXPECT_EQ(LogText::escaped("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(LogText::escaped(std::string_view("\0\x1b[2J\x7f", 6)), "\\x00\\x1b[2J\\x7f");
  EXPECT_EQ(LogText::escaped("\u009b31m"), "\\x9b31m");
  EXPECT_EQ(LogText::escaped("x\u2028y\u2029z"), "x\\u{2028}y\\u{2029}z");
  EXPECT_EQ(LogText::escaped("\u202eecilA\u2066"), "\\u{202e}ecilA\\u{2066}");
  // Malformed bytes one by one.
  EXPECT_EQ(LogText::escaped("\xff"), "\\xff");
  EXPECT_EQ(LogText::escaped("a\xc3"), "a\\xc3");
  EXPECT_EQ(LogText::escaped("\xc0\xaf"), "\\xc0\\xaf");             // overlong '/'
  EXPECT_EQ(LogText::escaped("\xed\xa0\x80!"), "\\xed\\xa0\\x80!");  // half a surrogate pair
}

TEST(LogTextTest, CutsLongLinesBetweenCharacters) {
  const std::string fits(LogText::kMaxLineBytes, 'x');
  EXPECT_EQ(LogText::escaped(fits), fits);
  std::string longer = std::string(LogText::kMaxLineBytes - 1, 'x') + "ü" + std::string(1000, 'y');
  EXPECT_EQ(LogText::escaped(longer),
            longer.substr(0, LogText::kMaxLineBytes + 1) + "… (1000 more bytes)");
  // Escapes grow the text; the line stays bounded all the same.
  EXPECT_LT(LogText::escaped(std::string(1u << 20, '\x01')).size(), LogText::kMaxLineBytes + 64);
}

TEST(LogTextTest, NamesFilesByTheirPlaceInTheSystem) {
  EXPECT_EQ(LogText::fileName("/src/AccountService/AccountStore.cpp"),
            "AccountService/AccountStore");
  EXPECT_EQ(LogText::fileName("/home/src/tallowd/src/Bag.cpp"), "Bag");
  EXPECT_EQ(LogText::fileName("platform/VendBase/HSDevice.cpp"), "VendBase/HSDevice");
  EXPECT_EQ(LogText::fileName("/platform/HTTP/HTTPTransport.h"), "HTTP/HTTPTransport");
  EXPECT_EQ(LogText::fileName("xsrc/a.b/file"), "xsrc/a.b/file");
}

std::string contentsOf(const std::filesystem::path& path) {
  return std::string(readFile(path)->view());
}

// Counts how often it is asked for its text.
struct Described {
  int* count;
};
std::string description(const Described& described) {
  ++*described.count;
  return "described\nhere";
}

TEST(VBLogManagerTest, WritesTheFormattedLineWithItsPlaceAndLevel) {
  CapturedLog log;
  int count = 0;
  logLevel(1, "%@: failed %d times", Described{&count}, 3);
  logLevel(2, "second");
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(log.contains(1, "described\\nhere: failed 3 times"));
  EXPECT_THAT(log.lines()[0].file, ::testing::EndsWith("VBLogManagerTest"));
  EXPECT_THAT(log.lines(2), ElementsAre("second"));
}

TEST(VBLogManagerTest, RendersNothingBelowTheThreshold) {
  CapturedLog log;
  VBLogManager& manager = VBLogManager::sharedManager();
  manager.setThreshold(2);
  int count = 0;
  logLevel(3, "%@", Described{&count});
  manager.logPropertyList(3, Value(1), "Name_%@", Described{&count});
  EXPECT_EQ(count, 0);
  EXPECT_TRUE(log.lines().empty() && log.propertyLists().empty());
  EXPECT_TRUE(manager.isEnabled(2));
  manager.setThreshold(3);
  manager.logPropertyList(3, Value(7), "Name_%@", "x");
  EXPECT_THAT(log.propertyLists(), ElementsAre(std::pair<std::string, Value>("Name_x", 7)));
}

TEST(VBLogManagerTest, TakesLinesFromAllThreadsWhileSinksChange) {
  CapturedLog log;
  onManyThreads(5, [](int number) {
    VBLogManager& manager = VBLogManager::sharedManager();
    for (int round = 0; round < 500 && number < 4; ++round) logLevel(2, "%d", round);
    // Lines are dropped meanwhile.
    for (int i = 0; i < 100 && number == 4; ++i) manager.setSink(manager.setSink(nullptr));
  });
  logLevel(2, "end");
  EXPECT_TRUE(log.contains(2, "end"));
}

TEST(VBLogManagerDeathTest, ReadsItsThresholdFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto thresholdWith = [](const char* text) {
    setenv("TALLOW_LOG", "stderr", 1);
    setenv("TALLOW_LOG_LEVEL", text, 1);
    std::_Exit(VBLogManager::sharedManager().threshold());
  };
  EXPECT_EXIT(thresholdWith("3"), ::testing::ExitedWithCode(3), "^$");
  EXPECT_EXIT(thresholdWith("0"), ::testing::ExitedWithCode(0), "^$");
  EXPECT_EXIT(thresholdWith("loud"), ::testing::ExitedWithCode(2), "TALLOW_LOG_LEVEL is \"loud\"");
}

TEST(StandardErrorLogSinkTest, WritesOneWholeLine) {
  ManualClock clock(Date{1772368200});
  const ScopedShared<Clock> scope(clock);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  StandardErrorLogSink sink("/nowhere", ends[1]);
  const SourceLocation place{"/src/Bag.cpp", "load", 120};
  sink.write({1, place, "Bag", "Bag: no \"bag\""});
  sink.writeEvent("com.example.event", {{"result", "fail\n"}, {"error_code", -1}});
  char buffer[512];
  const ssize_t length = read(ends[0], buffer, sizeof buffer);
  ASSERT_GT(length, 0);
  const std::string head = "2026-03-01 12:30:00 +0000 tallowd[" + std::to_string(getpid()) + "] ";
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)),
            head + "1 Bag:120: Bag: no \"bag\"\n" + head +
                R"(event com.example.event {"error_code" = -1; "result" = "fail\n"})" + "\n");
  close(ends[0]);
  close(ends[1]);
}

TEST(JournalLogSinkTest, KnowsWhetherStandardErrorIsTheJournal) {
  struct stat status {};
  ASSERT_EQ(fstat(2, &status), 0);
  const std::string own = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  setenv("JOURNAL_STREAM", own.c_str(), 1);
  EXPECT_TRUE(JournalLogSink::standardErrorIsJournal());
  setenv("JOURNAL_STREAM", (own + "1").c_str(), 1);
  EXPECT_FALSE(JournalLogSink::standardErrorIsJournal());
  unsetenv("JOURNAL_STREAM");
  EXPECT_FALSE(JournalLogSink::standardErrorIsJournal());
}

class PropertyListLogFilesTest : public ::testing::Test {
 protected:
  TemporaryFolder _folder;
  CapturedLog _log;
  PropertyListLogFiles _files{_folder / "log"};
};

TEST_F(PropertyListLogFilesTest, KeepsTheLatestDumpOfAName) {
  _files.write("Bag", Value(Dictionary{{"key", "old"}}));
  _files.write("Bag", Value(Dictionary{{"key", "new"}}));
  const std::string text = contentsOf(_folder / "log/Bag");
  EXPECT_EQ(*PropertyList::decode(Data(text)), Value(Dictionary{{"key", "new"}}));
  EXPECT_THAT(text, StartsWith("<?xml"));
  EXPECT_EQ(std::filesystem::status(_folder / "log/Bag").permissions(),
            std::filesystem::perms(0600));
  _files.write("Nothing", {});
  EXPECT_EQ(contentsOf(_folder / "log/Nothing"), "(null)\n");
}

TEST_F(PropertyListLogFilesTest, RefusesNamesThatLeaveTheFolder) {
  for (const char* const name : {"", ".", "..", "../Bag", "a/b", "/etc/passwd", "a\nb"})
    _files.write(name, Value(1));
  EXPECT_EQ(_log.lines(1).size(), 7u);
  EXPECT_FALSE(std::filesystem::exists(_folder / "Bag"));
  EXPECT_FALSE(std::filesystem::exists(_folder / "log"));
}

TEST_F(PropertyListLogFilesTest, BoundsSizeAndNumber) {
  constexpr std::size_t kFiles = 4, kBytes = 1000;
  PropertyListLogFiles files(_folder / "log", kFiles, kBytes);
  files.write("Large", Data(std::string(kBytes, 'x')));
  EXPECT_LT(std::filesystem::file_size(_folder / "log/Large"), kBytes + 100);
  EXPECT_THAT(contentsOf(_folder / "log/Large"), ::testing::HasSubstr("cut here"));
  const auto written = std::filesystem::last_write_time(_folder / "log/Large");
  std::filesystem::last_write_time(_folder / "log/Large", written - std::chrono::hours(1));
  for (std::size_t i = 0; i < 2 * kFiles; ++i) files.write("Dump" + std::to_string(i), Value(1));
  const auto count = std::distance(std::filesystem::directory_iterator(_folder / "log"), {});
  EXPECT_EQ(static_cast<std::size_t>(count), kFiles);
  EXPECT_FALSE(std::filesystem::exists(_folder / "log/Large"));
}

}  // namespace
}  // namespace tallow
