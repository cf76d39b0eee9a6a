#include "platform/Preferences/Preferences.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "platform/Preferences/MemoryPreferences.h"
#include "platform/Preferences/SQLitePreferences.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/InTheWay.h"
#include "tests/support/ManyThreads.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

using User = Preferences::User;
using Host = Preferences::Host;

constexpr const char* kTestDomain = "com.vantor.test";

// Preferences on disk, and how an administrator writes into them.
struct OnDisk {
  TemporaryFolder folder;
  const SQLitePreferences::Configuration configuration{
      folder / "preferences.db", {folder / "xdg"}, "host"};
  std::optional<SQLitePreferences> preferencesOnDisk{configuration};
  Preferences& preferences() { return *preferencesOnDisk; }
  std::optional<InTheWay> inTheWay;

  // The same for what has just started.
  void setUnreadable(bool isUnreadable) {
    if (!isUnreadable) return inTheWay.reset();
    preferencesOnDisk.reset();
    inTheWay.emplace(configuration.file);
    preferencesOnDisk.emplace(configuration);
  }

  void administratorSets(const std::string& key, int value) {
    std::filesystem::create_directory(folder / "xdg");
    std::ofstream(folder / "xdg" / (std::string(kTestDomain) + ".toml")) << key << " = " << value;
  }
};
struct InMemory {
  MemoryPreferences preferencesInMemory;
  Preferences& preferences() { return preferencesInMemory; }
  void setUnreadable(bool isUnreadable) { preferencesInMemory.setReadsFail(isUnreadable); }

  void administratorSets(const std::string& key, int value) {
    preferencesInMemory.setAnyUserValue(key, value, kTestDomain);
  }
};

// What all preferences do.
template <class Fixture>
class PreferencesTest : public ::testing::Test {
 protected:
  Value read(std::string_view key, Host host = Host::Any) {
    return preferences().copyValue(key, kTestDomain, User::Current, host);
  }
  void write(std::string_view key, const Value& value, Host host = Host::Any) {
    preferences().setValue(key, value, kTestDomain, User::Current, host);
  }
  Preferences& preferences() { return fixture.preferences(); }

  CapturedLog log;
  Fixture fixture;
};
using Stores = ::testing::Types<OnDisk, InMemory>;
TYPED_TEST_SUITE(PreferencesTest, Stores);

TYPED_TEST(PreferencesTest, ListsTheKeysOfTheWholeSearchList) {
  EXPECT_THAT(this->preferences().copyAppKeyList(kTestDomain), ::testing::IsEmpty());
  this->fixture.administratorSets("ofAnyUser", 1);
  this->write("b", 1);
  this->write("a", 2, Host::Current);
  this->write("b", 3, Host::Current);
  this->write("gone", 4);
  this->write("gone", nullptr);
  this->preferences().setValue("elsewhere", 5, "com.vantor.other", User::Current, Host::Any);
  EXPECT_THAT(this->preferences().copyAppKeyList(kTestDomain),
              ::testing::ElementsAre("a", "b", "ofAnyUser"));
}

TYPED_TEST(PreferencesTest, GivesBackEveryKindOfValue) {
  // That the encoding of those on disk carries all others is seen in its own tests.
  const std::vector<Value> values = {true,
                                     0,
                                     std::numeric_limits<std::uint64_t>::max(),
                                     "",
                                     Data(),
                                     Date{1772368200.25},
                                     Array{1, "two", Dictionary{{"three", Array{3.5, false}}}}};
  for (const Value& value : values) {
    this->write("key", value);
    EXPECT_EQ(this->read("key"), value) << description(value);
    EXPECT_STREQ(this->read("key").typeName(), value.typeName());
  }
  this->write("key", nullptr);
  EXPECT_TRUE(this->read("key").isNil());
  this->write("key", nullptr);  // removing what is not there is nothing
  EXPECT_TRUE(this->log.lines(1).empty());
}

TYPED_TEST(PreferencesTest, KeepsPlacesApart) {
  this->write("key", 1);
  this->write("key", 2, Host::Current);
  this->preferences().setValue("key", 3, "com.vantor.Test", User::Current, Host::Any);
  this->write("Key", 4);
  this->write(std::string_view("key\0", 4), 5);
  EXPECT_EQ(this->read("key"), Value(1));
  EXPECT_EQ(this->read("key", Host::Current), Value(2));
  EXPECT_EQ(this->read("Key"), Value(4));
  EXPECT_EQ(this->read(std::string_view("key\0", 4)), Value(5));
  EXPECT_TRUE(this->preferences().copyValue("key", kTestDomain, User::Any, Host::Any).isNil());
  EXPECT_TRUE(this->preferences().copyValue("key", "other", User::Current, Host::Any).isNil());
}

TYPED_TEST(PreferencesTest, SearchesFromTheNearestPlaceToTheFarthest) {
  Preferences& preferences = this->preferences();
  EXPECT_TRUE(preferences.copyAppValue("key", kTestDomain).isNil());
  this->fixture.administratorSets("key", 3);
  EXPECT_EQ(preferences.copyAppValue("key", kTestDomain), Value(3));
  this->write("key", 2);
  EXPECT_EQ(preferences.copyAppValue("key", kTestDomain), Value(2));
  this->write("key", 1, Host::Current);
  EXPECT_EQ(preferences.copyAppValue("key", kTestDomain), Value(1));
}

TYPED_TEST(PreferencesTest, AdministratorsValuesAreForBothHostsAndNotToBeWritten) {
  this->fixture.administratorSets("key", 3);
  Preferences& preferences = this->preferences();
  EXPECT_EQ(preferences.copyValue("key", kTestDomain, User::Any, Host::Current), Value(3));
  preferences.setValue("key", 4, kTestDomain, User::Any, Host::Any);
  EXPECT_EQ(preferences.copyValue("key", kTestDomain, User::Any, Host::Any), Value(3));
  EXPECT_EQ(this->log.lines(1).size(), 1u);
  EXPECT_TRUE(preferences.synchronize(kTestDomain, User::Any, Host::Current));
}

TYPED_TEST(PreferencesTest, ReadsFlagsAsTheirValuesAnswer) {
  Preferences& preferences = this->preferences();
  const std::pair<Value, std::optional<bool>> cases[] = {
      {nullptr, std::nullopt}, {"1", true}, {0, false}, {Array(), std::nullopt}};
  for (const auto& [value, answer] : cases) {
    this->write("flag", value);
    bool exists = !answer;
    EXPECT_EQ(preferences.getAppBooleanValue("flag", kTestDomain, &exists), answer == true);
    EXPECT_EQ(exists, answer.has_value()) << description(value);
    EXPECT_EQ(preferences.getAppBooleanValue("flag", kTestDomain), answer == true);
  }
}

TYPED_TEST(PreferencesTest, UpdatesSeveralValuesAtOnce) {
  this->write("kept", 1);
  this->write("gone", 2);
  EXPECT_TRUE(this->preferences().update(kTestDomain, [](Preferences::Editor& editor) {
    EXPECT_EQ(editor.value("kept"), Value(1));
    editor.setValue("gone", nullptr);
    EXPECT_TRUE(editor.value("gone").isNil());
    editor.setValue("made", 3);
    EXPECT_EQ(editor.value("made"), Value(3));
  }));
  EXPECT_EQ(this->read("kept"), Value(1));
  EXPECT_TRUE(this->read("gone").isNil());
  EXPECT_EQ(this->read("made"), Value(3));
  EXPECT_TRUE(this->preferences().update(kTestDomain, [](Preferences::Editor&) {}));
}

TYPED_TEST(PreferencesTest, TellsWhatCannotBeReadFromWhatIsNotThere) {
  const auto tryToRead = [&](std::string_view key) {
    return this->preferences().tryToCopyValue(key, kTestDomain, Host::Any);
  };
  this->write("key", 1);
  this->fixture.setUnreadable(true);
  EXPECT_FALSE(tryToRead("key"));
  EXPECT_FALSE(tryToRead("absent"));
  EXPECT_TRUE(this->read("key").isNil());
  EXPECT_FALSE(this->preferences().update(
      kTestDomain, [](Preferences::Editor& editor) { editor.setValue("key", 2); }));
  this->fixture.setUnreadable(false);
  EXPECT_TRUE(this->preferences().synchronize(kTestDomain, User::Current, Host::Any));
  EXPECT_EQ(*tryToRead("key"), Value(1));
  EXPECT_TRUE(tryToRead("absent")->isNil());
}

TYPED_TEST(PreferencesTest, CountsExactlyWithManyThreads) {
  constexpr int kThreads = 4, kRounds = 50;
  onManyThreads(kThreads, [&](int thread) {
    const std::string own = "own" + std::to_string(thread);
    for (int round = 0; round < kRounds; ++round) {
      this->preferences().update(kTestDomain, [](Preferences::Editor& editor) {
        editor.setValue("count", editor.value("count").signedValue() + 1);
      });
      this->write(own, round);
      EXPECT_EQ(this->read(own), Value(round));
    }
    EXPECT_TRUE(this->preferences().synchronize(kTestDomain, User::Current, Host::Any));
  });
  EXPECT_EQ(this->read("count"), Value(kThreads * kRounds));
}

}  // namespace
}  // namespace tallow
