#include "platform/Preferences/SQLitePreferences.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "platform/Base/AtomicFile.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FullDisk.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Unprivileged.h"

namespace tallow {
namespace {

namespace fs = std::filesystem;

std::string bytesOf(const fs::path& path) {
  return std::string(readFile(path)->view());
}

mode_t modeOf(const fs::path& path) {
  return static_cast<mode_t>(fs::status(path).permissions());
}

// One domain of the preferences in a file of the test's own, and every log line caught.
class PreferencesOnDiskTest : public ::testing::Test {
 protected:
  static constexpr const char* kDomain = "com.vantor.test";

  // As another process sees them.
  std::unique_ptr<SQLitePreferences> open() const {
    return std::make_unique<SQLitePreferences>(SQLitePreferences::Configuration{_file, {}, "host"});
  }
  static Value read(Preferences& preferences, std::string_view key) {
    return preferences.copyValue(key, kDomain, Preferences::User::Current, Preferences::Host::Any);
  }
  static void write(Preferences& preferences, std::string_view key, const Value& value) {
    preferences.setValue(key, value, kDomain, Preferences::User::Current, Preferences::Host::Any);
  }
  static bool synchronize(Preferences& preferences) {
    return preferences.synchronize(kDomain, Preferences::User::Current, Preferences::Host::Any);
  }
  Value stored(std::string_view key) const { return read(*open(), key); }

  void overwrite(std::size_t offset, const std::string& bytes) const {
    std::fstream file(_file, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file << bytes;
  }
  // Of which the large one lies where damageLarge() damages the file.
  void writeSmallAndLarge() const {
    write(*open(), "small", "remembered");
    write(*open(), "large", std::string(500'000, 'x'));
  }
  void damageLarge() const {
    overwrite(8 * 4096, std::string(fs::file_size(_file) - 8 * 4096, '\xaa'));
  }
  void setWritable(bool isWritable) const {
    ASSERT_EQ(chmod(_state.c_str(), 0700), 0);
    ASSERT_EQ(chmod(_file.c_str(), isWritable ? 0600 : 0400), 0);
    ASSERT_EQ(chmod(_state.c_str(), isWritable ? 0700 : 0500), 0);
  }
  // Adds 1 to "count" that many times.
  void count(int times) const {
    const auto preferences = open();
    for (int i = 0; i < times; ++i)
      ASSERT_TRUE(preferences->update(kDomain, [](Preferences::Editor& editor) {
        editor.setValue("count", editor.value("count").signedValue() + 1);
      }));
  }
  // Writes ever higher numbers, and says each once it is written.
  void writeForEver(const ChildProcess::Say& say) const {
    // Of varying size, so that the log grows, wraps and is folded into the file at all kinds of
    // moments.
    constexpr int kSizes = 97, kStep = 331;
    const auto preferences = open();
    for (int number = 1;; ++number) {
      const std::string padding(static_cast<std::size_t>(number % kSizes * kStep), 'x');
      write(*preferences, "single", number);
      const bool isWritten = preferences->update(kDomain, [&](Preferences::Editor& editor) {
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
  const fs::path _state = _folder / "state";
  const fs::path _file = _state / "preferences.db";
  SQLitePreferences _preferences{{_file, {}, "host"}};  // touches no file before its first use
};

TEST_F(PreferencesOnDiskTest, FilesAreTheOwnersOnly) {
  const mode_t oldMask = umask(0);
  EXPECT_TRUE(read(_preferences, "key").isNil());
  EXPECT_FALSE(fs::exists(_state));  // nothing before the first write
  write(_preferences, "key", 1);
  umask(oldMask);
  EXPECT_EQ(modeOf(_state), 0700u);
  for (const auto& entry : fs::directory_iterator(_state))
    EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
  chmod(_file.c_str(), 0644);
  EXPECT_EQ(stored("key"), Value(1));
  EXPECT_EQ(modeOf(_file), 0600u);
}

TEST_F(PreferencesOnDiskTest, AFullDiskKeepsTheChangeInMemoryUntilThereIsRoom) {
  write(_preferences, "key", "old");
  ASSERT_TRUE(synchronize(_preferences));
  {
    const FullDisk full;
    write(_preferences, "key", "new");
    EXPECT_TRUE(_log.mentions(1, "cannot write to " + _file.native()));
    EXPECT_EQ(read(_preferences, "key"), Value("new"));
    EXPECT_FALSE(synchronize(_preferences));
    // What an update computed is not kept: others may have written when there is room again.
    EXPECT_FALSE(_preferences.update(kDomain, [](Preferences::Editor& editor) {
      EXPECT_EQ(editor.value("key"), Value("new"));
      editor.setValue("other", 2);
    }));
    EXPECT_EQ(_preferences.pendingChanges(), 1u);
  }
  EXPECT_EQ(stored("key"), Value("old"));
  EXPECT_TRUE(synchronize(_preferences));
  EXPECT_EQ(stored("key"), Value("new"));
  EXPECT_TRUE(stored("other").isNil());
  EXPECT_EQ(_preferences.pendingChanges(), 0u);
  EXPECT_FALSE(_preferences.update(kDomain, [](Preferences::Editor& editor) {
    editor.setValue("small", 1);
    editor.setValue("other", std::string(17u << 20, 'x'));  // could not be read back
  }));
  EXPECT_TRUE(stored("small").isNil());
}

TEST_F(PreferencesOnDiskTest, AReadOnlyFolderIsReadAndWritesWait) {
  write(*open(), "key", "old");
  const Unprivileged scope(_folder.path());
  setWritable(false);
  EXPECT_EQ(read(_preferences, "key"), Value("old"));
  EXPECT_TRUE(_log.lines(1).empty());
  // Another process, which may write, has meanwhile.
  setWritable(true);
  write(*open(), "key", "newer");
  setWritable(false);
  EXPECT_TRUE(synchronize(_preferences));
  EXPECT_EQ(read(_preferences, "key"), Value("newer"));
  write(_preferences, "key", "new");
  EXPECT_TRUE(_log.mentions(1, "it is read-only"));
  EXPECT_EQ(read(_preferences, "key"), Value("new"));
  EXPECT_FALSE(synchronize(_preferences));
  setWritable(true);
  EXPECT_TRUE(synchronize(_preferences));
  EXPECT_EQ(stored("key"), Value("new"));
}

TEST_F(PreferencesOnDiskTest, AnUnreadableFileIsLeftAlone) {
  write(*open(), "key", "old");
  const Unprivileged scope(_folder.path());
  ASSERT_EQ(chmod(_state.c_str(), 0), 0);
  for (const char* which : {"first", "second"}) {
    EXPECT_TRUE(read(_preferences, "key").isNil()) << which;
    EXPECT_EQ(_log.lines(1).size(), 1u) << "reads do not repeat the complaint";
  }
  write(_preferences, "other", 1);
  EXPECT_EQ(read(_preferences, "other"), Value(1));
  ASSERT_EQ(chmod(_state.c_str(), 0700), 0);
  EXPECT_TRUE(synchronize(_preferences));
  EXPECT_EQ(read(_preferences, "key"), Value("old"));
  EXPECT_EQ(stored("other"), Value(1));
}

TEST_F(PreferencesOnDiskTest, ADamagedFileIsSetAsideWhole) {
  fs::create_directory(_state);
  const std::string garbage(10'000, 'z');
  std::ofstream(_file) << garbage;
  EXPECT_TRUE(read(_preferences, "key").isNil());
  EXPECT_TRUE(_log.mentions(1, "has been set aside"));
  EXPECT_EQ(bytesOf(_state / "preferences.db.corrupt"), garbage);
  write(_preferences, "key", 1);
  EXPECT_EQ(stored("key"), Value(1));
}

TEST_F(PreferencesOnDiskTest, DamageFoundLaterCostsOnlyWhatNobodyRemembers) {
  writeSmallAndLarge();
  EXPECT_EQ(read(_preferences, "small"), Value("remembered"));
  damageLarge();
  EXPECT_TRUE(read(_preferences, "large").isNil());
  EXPECT_TRUE(fs::exists(_state / "preferences.db.corrupt"));
  EXPECT_EQ(read(_preferences, "small"), Value("remembered"));
  EXPECT_TRUE(synchronize(_preferences));
  EXPECT_EQ(stored("small"), Value("remembered"));
}

TEST_F(PreferencesOnDiskTest, AnUpdateSurvivesDamageFoundInsideIt) {
  writeSmallAndLarge();
  damageLarge();
  EXPECT_TRUE(open()->update(kDomain, [](Preferences::Editor& editor) {
    editor.setValue("before", 1);
    EXPECT_TRUE(editor.value("large").isNil());
    editor.setValue("after", 2);
  }));
  EXPECT_EQ(stored("before"), Value(1));
  EXPECT_EQ(stored("after"), Value(2));
}

TEST_F(PreferencesOnDiskTest, AnUpdateThatMeetsDamageAndAFullDiskLosesNothing) {
  writeSmallAndLarge();
  EXPECT_EQ(read(_preferences, "small"), Value("remembered"));
  damageLarge();
  {
    const FullDisk full;
    EXPECT_FALSE(_preferences.update(kDomain, [](Preferences::Editor& editor) {
      editor.setValue("small", "computed");
      editor.setValue("large", 1);  // walks the pages of the old one
    }));
    EXPECT_TRUE(fs::exists(_state / "preferences.db.corrupt"));
    EXPECT_EQ(read(_preferences, "small"), Value("remembered"));
  }
  EXPECT_TRUE(synchronize(_preferences));
  EXPECT_EQ(stored("small"), Value("remembered"));
  EXPECT_TRUE(stored("large").isNil());
}

TEST_F(PreferencesOnDiskTest, AValueThatCannotBeUnderstoodIsAbsent) {
  write(*open(), "other", "fine");
  write(*open(), "key", "hello there");  // the later row comes first in the file
  const std::size_t at = bytesOf(_file).find("bplist00");
  ASSERT_NE(at, std::string::npos);
  overwrite(at, "xxxxxx99");
  EXPECT_TRUE(stored("key").isNil());
  EXPECT_TRUE(_log.mentions(1, "Preferences: key of com.vantor.test cannot be understood"));
  EXPECT_EQ(stored("other"), Value("fine"));
}

TEST_F(PreferencesOnDiskTest, ANewerFormatIsLeftAlone) {
  write(*open(), "key", "old");
  constexpr std::size_t kUserVersionOffset = 60;
  overwrite(kUserVersionOffset, std::string("\0\0\0\2", 4));
  const std::string before = bytesOf(_file);
  EXPECT_TRUE(read(_preferences, "key").isNil());
  EXPECT_TRUE(_log.mentions(1, "format 2 is newer than 1"));
  write(_preferences, "key", "new");
  EXPECT_EQ(read(_preferences, "key"), Value("new"));
  EXPECT_FALSE(synchronize(_preferences));
  EXPECT_EQ(bytesOf(_file), before);
  EXPECT_FALSE(fs::exists(_state / "preferences.db.corrupt"));
}

TEST_F(PreferencesOnDiskTest, AFileThatWasTakenAwayIsMadeAgain) {
  write(_preferences, "key", 1);
  fs::remove_all(_state);
  EXPECT_TRUE(read(_preferences, "key").isNil());
  write(_preferences, "key", 2);
  EXPECT_EQ(stored("key"), Value(2));
}

TEST_F(PreferencesOnDiskTest, AValueThatCouldNotBeReadBackIsRefused) {
  write(_preferences, "key", "old");
  write(_preferences, "key", std::string((16u << 20) + 1, 'x'));
  EXPECT_TRUE(_log.mentions(1, "key of com.vantor.test is too large"));
  EXPECT_EQ(read(_preferences, "key"), Value("old"));
}

// The file does not exist yet when they start, so that making it is contended as well.
TEST_F(PreferencesOnDiskTest, ProcessesLoseNoUpdateOfEachOther) {
  constexpr int kTimes = 200;
  const auto body = [this](const ChildProcess::Say& say) {
    count(kTimes);
    say(kTimes);
  };
  const ChildProcess first(body), second(body), third(body);
  count(kTimes);
  for (const ChildProcess* const child : {&first, &second, &third})
    EXPECT_EQ(child->next(), kTimes);
  EXPECT_EQ(stored("count"), Value(4 * kTimes));
  EXPECT_TRUE(_log.lines(1).empty());
}

TEST_F(PreferencesOnDiskTest, ProcessesSeeEachOthersWritesAtTheNextRead) {
  for (int i = 1; i <= 3; ++i) {
    const ChildProcess neighbour([this](const ChildProcess::Say& say) {
      count(1);
      say(1);
    });
    EXPECT_EQ(neighbour.next(), 1);
    EXPECT_EQ(read(_preferences, "count"), Value(i));
    EXPECT_EQ(read(_preferences, "count"), Value(i)) << "again";
  }
}

TEST_F(PreferencesOnDiskTest, KeepsWhatWasAcknowledgedWhenKilled) {
  constexpr int kKills = 8, kMostLines = 60;
  std::minstd_rand random(4711);
  for (int round = 0; round < kKills; ++round) {
    ChildProcess neighbour([this](const ChildProcess::Say& say) { writeForEver(say); });
    std::int64_t acknowledged = 0;
    for (auto lines = 1 + random() % kMostLines; lines > 0; --lines)
      acknowledged = neighbour.next().value_or(-1);
    acknowledged = neighbour.kill(acknowledged);
    const std::int64_t first = stored("first").signedValue();
    EXPECT_GT(acknowledged, 0);
    EXPECT_EQ(stored("second"), Value(first)) << "a transaction is half there";
    EXPECT_GE(first, acknowledged);
    EXPECT_LE(first, acknowledged + 1);
    EXPECT_GE(stored("single").signedValue(), first);
  }
  EXPECT_TRUE(_log.lines(1).empty());
}

}  // namespace
}  // namespace tallow
