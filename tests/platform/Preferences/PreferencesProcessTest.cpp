#include <gtest/gtest.h>

#include <random>
#include <string>

#include "platform/Preferences/SQLitePreferences.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

constexpr const char* kSharedDomain = "com.vantor.test";

class PreferencesProcessTest : public ::testing::Test {
 protected:
  static std::int64_t read(Preferences& preferences, const char* key) {
    return preferences
        .copyValue(key, kSharedDomain, Preferences::User::Current, Preferences::Host::Any)
        .signedValue();
  }
  std::int64_t stored(const char* key) {
    SQLitePreferences preferences({_file, {}, "host"});
    return read(preferences, key);
  }
  // Adds 1 to "count" that many times.
  void count(int times) {
    SQLitePreferences preferences({_file, {}, "host"});
    for (int i = 0; i < times; ++i) {
      ASSERT_TRUE(preferences.update(kSharedDomain, [](Preferences::Editor& editor) {
        editor.setValue("count", editor.value("count").signedValue() + 1);
      }));
    }
  }
  // Writes ever higher numbers, and says each once it is written.
  void writeForEver(const ChildProcess::Say& say) {
    // Of varying size, so that the log grows, wraps and is folded into the file at all kinds of
    // moments.
    constexpr int kSizes = 97, kStep = 331;
    SQLitePreferences preferences({_file, {}, "host"});
    for (int number = 1;; ++number) {
      const std::string padding(static_cast<std::size_t>(number % kSizes * kStep), 'x');
      preferences.setValue("single", number, kSharedDomain, Preferences::User::Current,
                           Preferences::Host::Any);
      const bool isWritten = preferences.update(kSharedDomain, [&](Preferences::Editor& editor) {
        editor.setValue("first", number);
        editor.setValue("padding", padding);
        editor.setValue("second", number);
      });
      if (!isWritten) return;
      say(number);
    }
  }

  CapturedLog _log;
  TemporaryFolder _folder;
  const std::string _file = _folder / "state/preferences.db";
};

// The file does not exist yet when they start, so that making it is contended as well.
TEST_F(PreferencesProcessTest, LoseNoUpdateOfEachOther) {
  constexpr int kTimes = 200;
  const auto body = [this](const ChildProcess::Say& say) {
    count(kTimes);
    say(kTimes);
  };
  const ChildProcess first(body), second(body), third(body);
  count(kTimes);
  for (const ChildProcess* const child : {&first, &second, &third})
    EXPECT_EQ(child->next(), kTimes);
  EXPECT_EQ(stored("count"), 4 * kTimes);
  EXPECT_TRUE(_log.lines(1).empty());
}

TEST_F(PreferencesProcessTest, SeeEachOthersWritesAtTheNextRead) {
  SQLitePreferences own({_file, {}, "host"});
  for (int i = 1; i <= 3; ++i) {
    const ChildProcess neighbour([this](const ChildProcess::Say& say) {
      count(1);
      say(1);
    });
    EXPECT_EQ(neighbour.next(), 1);
    EXPECT_EQ(read(own, "count"), i);
    EXPECT_EQ(read(own, "count"), i);
  }
}

TEST_F(PreferencesProcessTest, KeepWhatWasAcknowledgedWhenKilled) {
  constexpr int kKills = 8, kMostLines = 60;
  std::minstd_rand random(4711);
  for (int round = 0; round < kKills; ++round) {
    ChildProcess neighbour([this](const ChildProcess::Say& say) { writeForEver(say); });
    std::int64_t acknowledged = 0;
    for (auto lines = 1 + random() % kMostLines; lines > 0; --lines)
      acknowledged = neighbour.next().value_or(-1);
    acknowledged = neighbour.kill(acknowledged);
    const std::int64_t first = stored("first");
    EXPECT_GT(acknowledged, 0);
    EXPECT_EQ(stored("second"), first) << "a transaction is half there";
    EXPECT_GE(first, acknowledged);
    EXPECT_LE(first, acknowledged + 1);
    EXPECT_GE(stored("single"), first);
  }
  EXPECT_TRUE(_log.lines(1).empty());
}

}  // namespace
}  // namespace tallow
