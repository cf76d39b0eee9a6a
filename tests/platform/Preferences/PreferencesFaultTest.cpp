#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "platform/Preferences/SQLitePreferences.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/FullDisk.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Unprivileged.h"

namespace tallow {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDomain = "com.vantor.test";

std::string bytesOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void overwrite(const fs::path& path, std::size_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file << bytes;
}

mode_t modeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777u;
}

class PreferencesFaultTest : public ::testing::Test {
 protected:
  std::unique_ptr<SQLitePreferences> open() const {
    return std::make_unique<SQLitePreferences>(SQLitePreferences::Configuration{_file, {}, "host"});
  }
  static Value read(SQLitePreferences& preferences, std::string_view key) {
    return preferences.copyValue(key, kDomain, Preferences::User::Current, Preferences::Host::Any);
  }
  static void write(SQLitePreferences& preferences, std::string_view key, const Value& value) {
    preferences.setValue(key, value, kDomain, Preferences::User::Current, Preferences::Host::Any);
  }
  static bool synchronize(SQLitePreferences& preferences) {
    return preferences.synchronize(kDomain, Preferences::User::Current, Preferences::Host::Any);
  }
  // What another process would see.
  Value stored(std::string_view key) const { return read(*open(), key); }

  CapturedLog _log;
  TemporaryFolder _folder;
  const fs::path _state = _folder / "state";
  const fs::path _file = _state / "preferences.db";
};

TEST_F(PreferencesFaultTest, FilesAreTheOwnersOnly) {
  const mode_t oldMask = umask(0);
  const auto preferences = open();
  EXPECT_TRUE(read(*preferences, "key").isNil());
  EXPECT_FALSE(fs::exists(_state));  // nothing before the first write
  write(*preferences, "key", 1);
  umask(oldMask);
  EXPECT_EQ(modeOf(_state), 0700u);
  for (const auto& entry : fs::directory_iterator(_state)) {
    EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
  }
  chmod(_file.c_str(), 0644);
  EXPECT_EQ(stored("key"), Value(1));
  EXPECT_EQ(modeOf(_file), 0600u);
}

TEST_F(PreferencesFaultTest, AFullDiskKeepsTheChangeInMemoryUntilThereIsRoom) {
  const auto preferences = open();
  write(*preferences, "key", "old");
  ASSERT_TRUE(synchronize(*preferences));
  {
    const FullDisk full;
    write(*preferences, "key", "new");
    EXPECT_TRUE(_log.mentions(1, "cannot write to " + _file.native()));
    EXPECT_EQ(read(*preferences, "key"), Value("new"));
    EXPECT_FALSE(synchronize(*preferences));
    // What an update computed is not kept: others may have written when there is room again.
    EXPECT_FALSE(preferences->update(kDomain, [](Preferences::Editor& editor) {
      EXPECT_EQ(editor.value("key"), Value("new"));
      editor.setValue("other", 2);
    }));
    EXPECT_EQ(preferences->pendingChanges(), 1u);
  }
  EXPECT_EQ(stored("key"), Value("old"));
  EXPECT_TRUE(synchronize(*preferences));
  EXPECT_EQ(stored("key"), Value("new"));
  EXPECT_TRUE(stored("other").isNil());
  EXPECT_EQ(preferences->pendingChanges(), 0u);
  EXPECT_FALSE(preferences->update(kDomain, [](Preferences::Editor& editor) {
    editor.setValue("small", 1);
    editor.setValue("other", std::string(17u << 20, 'x'));  // could not be read back
  }));
  EXPECT_TRUE(stored("small").isNil());
}

TEST_F(PreferencesFaultTest, AReadOnlyFolderIsReadAndWritesWait) {
  write(*open(), "key", "old");
  const Unprivileged scope(_folder.path());
  ASSERT_EQ(chmod(_file.c_str(), 0400), 0);
  ASSERT_EQ(chmod(_state.c_str(), 0500), 0);
  const auto preferences = open();
  EXPECT_EQ(read(*preferences, "key"), Value("old"));
  EXPECT_TRUE(_log.lines(1).empty());
  {
    // Another process, which may write, has meanwhile.
    ASSERT_EQ(chmod(_state.c_str(), 0700), 0);
    ASSERT_EQ(chmod(_file.c_str(), 0600), 0);
    write(*open(), "key", "newer");
    ASSERT_EQ(chmod(_file.c_str(), 0400), 0);
    ASSERT_EQ(chmod(_state.c_str(), 0500), 0);
  }
  EXPECT_TRUE(synchronize(*preferences));
  EXPECT_EQ(read(*preferences, "key"), Value("newer"));
  write(*preferences, "key", "new");
  EXPECT_TRUE(_log.mentions(1, "it is read-only"));
  EXPECT_EQ(read(*preferences, "key"), Value("new"));
  EXPECT_FALSE(synchronize(*preferences));
  ASSERT_EQ(chmod(_state.c_str(), 0700), 0);
  ASSERT_EQ(chmod(_file.c_str(), 0600), 0);
  EXPECT_TRUE(synchronize(*preferences));
  EXPECT_EQ(stored("key"), Value("new"));
}

TEST_F(PreferencesFaultTest, AnUnreadableFileIsLeftAlone) {
  write(*open(), "key", "old");
  const Unprivileged scope(_folder.path());
  ASSERT_EQ(chmod(_state.c_str(), 0), 0);
  const auto preferences = open();
  EXPECT_TRUE(read(*preferences, "key").isNil());
  EXPECT_EQ(_log.lines(1).size(), 1u);
  EXPECT_TRUE(read(*preferences, "key").isNil());
  EXPECT_EQ(_log.lines(1).size(), 1u);  // reads do not repeat the complaint
  write(*preferences, "other", 1);
  EXPECT_EQ(read(*preferences, "other"), Value(1));
  ASSERT_EQ(chmod(_state.c_str(), 0700), 0);
  EXPECT_TRUE(synchronize(*preferences));
  EXPECT_EQ(read(*preferences, "key"), Value("old"));
  EXPECT_EQ(stored("other"), Value(1));
}

TEST_F(PreferencesFaultTest, ADamagedFileIsSetAsideWhole) {
  fs::create_directory(_state);
  const std::string garbage(10'000, 'z');
  std::ofstream(_file) << garbage;
  const auto preferences = open();
  EXPECT_TRUE(read(*preferences, "key").isNil());
  EXPECT_TRUE(_log.mentions(1, "has been set aside"));
  EXPECT_EQ(bytesOf(_state / "preferences.db.corrupt"), garbage);
  write(*preferences, "key", 1);
  EXPECT_EQ(stored("key"), Value(1));
}

TEST_F(PreferencesFaultTest, DamageFoundLaterCostsOnlyWhatNobodyRemembers) {
  write(*open(), "small", "remembered");
  write(*open(), "large", std::string(500'000, 'x'));
  const auto preferences = open();
  EXPECT_EQ(read(*preferences, "small"), Value("remembered"));
  const std::size_t size = fs::file_size(_file);
  overwrite(_file, 8 * 4096, std::string(size - 8 * 4096, '\xaa'));
  EXPECT_TRUE(read(*preferences, "large").isNil());
  EXPECT_TRUE(fs::exists(_state / "preferences.db.corrupt"));
  EXPECT_EQ(read(*preferences, "small"), Value("remembered"));
  EXPECT_TRUE(synchronize(*preferences));
  EXPECT_EQ(stored("small"), Value("remembered"));
}

TEST_F(PreferencesFaultTest, AnUpdateSurvivesDamageFoundInsideIt) {
  write(*open(), "large", std::string(500'000, 'x'));
  overwrite(_file, 8 * 4096, std::string(fs::file_size(_file) - 8 * 4096, '\xaa'));
  EXPECT_TRUE(open()->update(kDomain, [](Preferences::Editor& editor) {
    editor.setValue("before", 1);
    EXPECT_TRUE(editor.value("large").isNil());
    editor.setValue("after", 2);
  }));
  EXPECT_EQ(stored("before"), Value(1));
  EXPECT_EQ(stored("after"), Value(2));
}

TEST_F(PreferencesFaultTest, AnUpdateThatMeetsDamageAndAFullDiskLosesNothing) {
  write(*open(), "small", "remembered");
  write(*open(), "large", std::string(500'000, 'x'));
  const auto preferences = open();
  EXPECT_EQ(read(*preferences, "small"), Value("remembered"));
  overwrite(_file, 8 * 4096, std::string(fs::file_size(_file) - 8 * 4096, '\xaa'));
  {
    const FullDisk full;
    EXPECT_FALSE(preferences->update(kDomain, [](Preferences::Editor& editor) {
      editor.setValue("small", "computed");
      editor.setValue("large", 1);  // walks the pages of the old one
    }));
    EXPECT_TRUE(fs::exists(_state / "preferences.db.corrupt"));
    EXPECT_EQ(read(*preferences, "small"), Value("remembered"));
  }
  EXPECT_TRUE(synchronize(*preferences));
  EXPECT_EQ(stored("small"), Value("remembered"));
  EXPECT_TRUE(stored("large").isNil());
}

TEST_F(PreferencesFaultTest, AValueThatCannotBeUnderstoodIsAbsent) {
  write(*open(), "other", "fine");
  write(*open(), "key", "hello there");  // the later row comes first in the file
  const std::size_t at = bytesOf(_file).find("bplist00");
  ASSERT_NE(at, std::string::npos);
  overwrite(_file, at, "xxxxxx99");
  EXPECT_TRUE(stored("key").isNil());
  EXPECT_TRUE(_log.mentions(1, "Preferences: key of com.vantor.test cannot be understood"));
  EXPECT_EQ(stored("other"), Value("fine"));
}

TEST_F(PreferencesFaultTest, ANewerFormatIsLeftAlone) {
  write(*open(), "key", "old");
  constexpr std::size_t kUserVersionOffset = 60;
  overwrite(_file, kUserVersionOffset, std::string("\0\0\0\2", 4));
  const std::string before = bytesOf(_file);
  const auto preferences = open();
  EXPECT_TRUE(read(*preferences, "key").isNil());
  EXPECT_TRUE(_log.mentions(1, "format 2 is newer than 1"));
  write(*preferences, "key", "new");
  EXPECT_EQ(read(*preferences, "key"), Value("new"));
  EXPECT_FALSE(synchronize(*preferences));
  EXPECT_EQ(bytesOf(_file), before);
  EXPECT_FALSE(fs::exists(_state / "preferences.db.corrupt"));
}

TEST_F(PreferencesFaultTest, AFileThatWasTakenAwayIsMadeAgain) {
  const auto preferences = open();
  write(*preferences, "key", 1);
  fs::remove_all(_state);
  EXPECT_TRUE(read(*preferences, "key").isNil());
  write(*preferences, "key", 2);
  EXPECT_EQ(stored("key"), Value(2));
}

TEST_F(PreferencesFaultTest, AValueThatCouldNotBeReadBackIsRefused) {
  const auto preferences = open();
  write(*preferences, "key", "old");
  write(*preferences, "key", std::string((16u << 20) + 1, 'x'));
  EXPECT_TRUE(_log.mentions(1, "key of com.vantor.test is too large"));
  EXPECT_EQ(read(*preferences, "key"), Value("old"));
}

}  // namespace
}  // namespace tallow
