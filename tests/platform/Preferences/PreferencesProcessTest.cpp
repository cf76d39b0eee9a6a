#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/Preferences/SQLitePreferences.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

constexpr const char* kDomain = "com.vantor.test";

// A running PreferencesNeighbour and the lines it writes.
class Neighbour {
 public:
  explicit Neighbour(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), PREFERENCES_NEIGHBOUR);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    EXPECT_EQ(posix_spawn(&_process, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    _output.reset(fdopen(ends[0], "r"));
  }
  ~Neighbour() {
    if (_process <= 0) return;
    kill(_process, SIGKILL);
    wait();
  }
  Neighbour(const Neighbour&) = delete;
  Neighbour& operator=(const Neighbour&) = delete;

  // The next whole line; empty at the end.
  std::string line() {
    std::string text;
    for (int character = 0; (character = std::fgetc(_output.get())) != EOF;) {
      if (character == '\n') return text;
      text += static_cast<char>(character);
    }
    return "";
  }
  void killNow() { kill(_process, SIGKILL); }
  int wait() {
    int status = 0;
    waitpid(_process, &status, 0);
    _process = -1;
    return status;
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  pid_t _process = -1;
  std::unique_ptr<std::FILE, Close> _output;
};

class PreferencesProcessTest : public ::testing::Test {
 protected:
  std::int64_t stored(const char* key) {
    SQLitePreferences preferences({_file, {}, "host"});
    return preferences.copyValue(key, kDomain, Preferences::User::Current, Preferences::Host::Any)
        .signedValue();
  }

  CapturedLog _log;
  TemporaryFolder _folder;
  const std::string _file = _folder / "state/preferences.db";
};

// The file does not exist yet when they start, so that making it is contended as well.
TEST_F(PreferencesProcessTest, LoseNoUpdateOfEachOther) {
  constexpr int kTimes = 200;
  const std::vector<std::string> arguments = {"count", _file, std::to_string(kTimes)};
  Neighbour first(arguments), second(arguments), third(arguments);
  SQLitePreferences own({_file, {}, "host"});
  for (int i = 0; i < kTimes; ++i) {
    ASSERT_TRUE(own.update(kDomain, [](Preferences::Editor& editor) {
      editor.setValue("count", editor.value("count").signedValue() + 1);
    }));
  }
  for (Neighbour* const neighbour : {&first, &second, &third}) {
    EXPECT_EQ(neighbour->line(), "done");
    EXPECT_EQ(neighbour->wait(), 0);
  }
  EXPECT_EQ(stored("count"), 4 * kTimes);
  EXPECT_TRUE(_log.lines(1).empty());
}

TEST_F(PreferencesProcessTest, SeeEachOthersWritesAtTheNextRead) {
  SQLitePreferences own({_file, {}, "host"});
  const auto count = [&] {
    return own.copyValue("count", kDomain, Preferences::User::Current, Preferences::Host::Any)
        .signedValue();
  };
  for (int i = 1; i <= 3; ++i) {
    Neighbour neighbour({"count", _file, "1"});
    EXPECT_EQ(neighbour.line(), "done");
    EXPECT_EQ(count(), i);
    EXPECT_EQ(count(), i);
  }
}

TEST_F(PreferencesProcessTest, KeepWhatWasAcknowledgedWhenKilled) {
  constexpr int kKills = 15, kMostLines = 60;
  std::minstd_rand random(4711);
  for (int round = 0; round < kKills; ++round) {
    Neighbour neighbour({"write", _file});
    std::int64_t acknowledged = 0;
    for (auto lines = 1 + random() % kMostLines; lines > 0; --lines) {
      acknowledged = std::stoll(neighbour.line());
    }
    // What it says until it is gone counts as well.
    neighbour.killNow();
    for (std::string line; !(line = neighbour.line()).empty();) acknowledged = std::stoll(line);
    neighbour.wait();
    const std::int64_t first = stored("first");
    EXPECT_EQ(stored("second"), first) << "a transaction is half there";
    EXPECT_GE(first, acknowledged);
    EXPECT_LE(first, acknowledged + 1);
    EXPECT_GE(stored("single"), first);
  }
  EXPECT_TRUE(_log.lines(1).empty());
}

}  // namespace
}  // namespace tallow
