#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/HSDialogCenter.h"

namespace tallow {

// A dialog agent that answers what it is shown at once, in the order that the test has set; without
// an answer left the dialog stays open.
class FakeDialogAgent final : public HSDialogAgent,
                              public std::enable_shared_from_this<FakeDialogAgent> {
 public:
  explicit FakeDialogAgent(std::string client = {}) : _client(std::move(client)) {}

  static HSDialogAnswer pressing(std::size_t button, std::string accountName = {},
                                 std::string_view password = {}) {
    return {button, std::move(accountName), Secret(password)};
  }
  void willAnswer(HSDialogAnswer answer) { _answers.push_back(std::move(answer)); }

  const std::string& client() const override { return _client; }
  void showDialog(std::uint64_t number, const HSDialog& dialog) override {
    shown.push_back(dialog);
    numbers.push_back(number);
    if (_answers.empty()) return;
    HSDialogAnswer answer = std::move(_answers.front());
    _answers.pop_front();
    HSDialogCenter::shared().answer(*this, number, std::move(answer));
  }
  void dismissDialog(std::uint64_t number) override { dismissed.push_back(number); }

  std::vector<HSDialog> shown;
  std::vector<std::uint64_t> numbers, dismissed;

 private:
  const std::string _client;
  std::deque<HSDialogAnswer> _answers;
};

// A center of the test's own with one agent.
class ScopedDialogCenter {
 public:
  ScopedDialogCenter() { center.addAgent(agent); }
  HSDialogCenter center;
  std::shared_ptr<FakeDialogAgent> agent = std::make_shared<FakeDialogAgent>();

 private:
  ScopedShared<HSDialogCenter> _shared{center};
};

}  // namespace tallow
