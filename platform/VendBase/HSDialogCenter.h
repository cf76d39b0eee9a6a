#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Concurrency/RunLoop.h"
#include "platform/VendBase/HSDialog.h"

namespace tallow {

// A program that shows dialogs to a person. Both operations return at once; any thread.
class HSDialogAgent {
 public:
  virtual ~HSDialogAgent() = default;
  // The store client as which the agent registered; "" for none.
  virtual const std::string& client() const = 0;
  // Shows the dialog. The answer comes to HSDialogCenter::answer, under the number.
  virtual void showDialog(std::uint64_t number, const HSDialog& dialog) = 0;
  // Nobody waits for the answer any more.
  virtual void dismissDialog(std::uint64_t number) = 0;
};

// Where requests have dialogs shown and agents hand in the answers: the process's one list of
// agents and of open dialogs. A dialog goes to the agent that registered last for the same client,
// else to the one that registered last. It counts as dismissed when there is none, when the agent
// goes away or does not answer within ten minutes, and when too many are open.
//
// Any thread may call. Answers are given on the thread that brings them, without a lock held.
class HSDialogCenter {
 public:
  static constexpr const char* kClassName = "HSDialogCenter";  // in log lines

  using Answered = std::function<void(HSDialogAnswer)>;

  static constexpr std::size_t kMaxAgents = 32;
  // Each open dialog keeps a request waiting.
  static constexpr std::size_t kMaxOpenDialogs = 32;
  static constexpr std::size_t kMaxOpenDialogsPerClient = 4;
  static constexpr double kPatienceSeconds = 600;

  static HSDialogCenter& shared();
  HSDialogCenter();
  // Open dialogs are dismissed.
  ~HSDialogCenter();
  HSDialogCenter(const HSDialogCenter&) = delete;
  HSDialogCenter& operator=(const HSDialogCenter&) = delete;

  // For requests: `answered` runs exactly once, perhaps before this returns. The result is the
  // dialog's number; 0 when it was dismissed at once.
  std::uint64_t show(const HSDialog& dialog, const std::string& client, const Answered& answered);
  // Nobody waits any more: the dialog is dismissed. Does nothing when it has been answered.
  void withdraw(std::uint64_t number);

  // For agents. False when there are too many.
  bool addAgent(std::shared_ptr<HSDialogAgent> agent);
  // Its open dialogs are dismissed; the agent itself is not told.
  void removeAgent(const std::shared_ptr<HSDialogAgent>& agent);
  // False when this agent has no open dialog of the number; then nothing has happened.
  bool answer(const HSDialogAgent& agent, std::uint64_t number, HSDialogAnswer answer);

  // The same when the agent could not be asked: dismisses the dialog, and says so to the agent.
  void dismissUnshown(const HSDialogAgent& agent, std::uint64_t number);
  // When the service ends: dismisses what is open, and everything that is to be shown from now on.
  void close();

  // For status reports.
  std::size_t agentCount() const;
  std::size_t openDialogCount() const;

 private:
  struct Open {
    std::string client;
    std::shared_ptr<HSDialogAgent> agent;
    Answered answered;
    std::shared_ptr<RunLoop::Timer> timer;
  };
  struct State;

  static void dismiss(const std::shared_ptr<State>& state, std::uint64_t number, const char* why,
                      bool tellAgent = true);

  const std::shared_ptr<State> _state;  // timers outlive the center
};

}  // namespace tallow
