#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

// Catches every log line (all levels) from its making to its end, so that a test can say what was
// logged:
//   CapturedLog log;
//   ...
//   EXPECT_TRUE(log.contains(1, "Bag: Could not unserialize the URL bag"));
// Lines of a failed test are printed. Any thread may log meanwhile; one CapturedLog at a time.
class CapturedLog {
 public:
  struct Line {
    int level;
    std::string file;  // as the log names it: "Bag", "AccountService/AccountStore"
    std::string text;
  };

  CapturedLog()
      : _sink(std::make_shared<Sink>()), _threshold(VBLogManager::sharedManager().threshold()) {
    _previous = VBLogManager::sharedManager().setSink(_sink);
    VBLogManager::sharedManager().setThreshold(3);
  }
  ~CapturedLog() {
    VBLogManager::sharedManager().setThreshold(_threshold);
    VBLogManager::sharedManager().setSink(_previous);
    if (!::testing::Test::HasFailure()) return;
    for (const Line& line : lines()) {
      std::fprintf(stderr, "log %d %s: %s\n", line.level, line.file.c_str(), line.text.c_str());
    }
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::vector<Line> lines() const {
    const std::lock_guard lock(_sink->mutex);
    return _sink->lines;
  }
  // The texts of one level, in order.
  std::vector<std::string> lines(int level) const {
    std::vector<std::string> texts;
    for (Line& line : lines()) {
      if (line.level == level) texts.push_back(std::move(line.text));
    }
    return texts;
  }
  // How many lines of the level are exactly `text`.
  std::size_t count(int level, std::string_view text) const {
    const std::lock_guard lock(_sink->mutex);
    return _sink->count(level, text);
  }
  bool contains(int level, std::string_view text) const { return count(level, text) > 0; }
  // Whether a line of the level has `part` in it.
  bool mentions(int level, std::string_view part) const {
    for (const std::string& text : lines(level)) {
      if (text.find(part) != std::string::npos) return true;
    }
    return false;
  }
  // Waits until the line has been logged `times` times; false when it does not come.
  bool waitFor(int level, std::string_view text, std::size_t times = 1,
               std::chrono::seconds patience = std::chrono::seconds(30)) const {
    std::unique_lock lock(_sink->mutex);
    return _sink->logged.wait_for(lock, patience,
                                  [&] { return _sink->count(level, text) >= times; });
  }
  // What was dumped, by log file name, in order.
  std::vector<std::pair<std::string, Value>> propertyLists() const {
    const std::lock_guard lock(_sink->mutex);
    return _sink->propertyLists;
  }
  // What happened, in order.
  std::vector<std::pair<std::string, Dictionary>> events() const {
    const std::lock_guard lock(_sink->mutex);
    return _sink->events;
  }
  void clear() {
    const std::lock_guard lock(_sink->mutex);
    _sink->lines.clear();
    _sink->events.clear();
    _sink->propertyLists.clear();
  }

 private:
  struct Sink final : VBLogManager::Sink {
    void write(const VBLogManager::Line& line) override {
      const std::lock_guard lock(mutex);
      lines.push_back({line.level, std::string(line.file), std::string(line.text)});
      logged.notify_all();
    }
    void writePropertyList(int, std::string_view fileName, const Value& value) override {
      const std::lock_guard lock(mutex);
      propertyLists.emplace_back(fileName, value);
      logged.notify_all();
    }
    void writeEvent(std::string_view name, const Dictionary& arguments) override {
      const std::lock_guard lock(mutex);
      events.emplace_back(name, arguments);
      logged.notify_all();
    }
    std::size_t count(int level, std::string_view text) const {
      std::size_t found = 0;
      for (const Line& line : lines) found += line.level == level && line.text == text ? 1 : 0;
      return found;
    }

    std::mutex mutex;
    std::condition_variable logged;
    std::vector<Line> lines;
    std::vector<std::pair<std::string, Value>> propertyLists;
    std::vector<std::pair<std::string, Dictionary>> events;
  };

  std::shared_ptr<Sink> _sink;
  std::shared_ptr<VBLogManager::Sink> _previous;
  const int _threshold;
};

}  // namespace tallow
