#include "platform/VendBase/HSDialogCenter.h"

#include <algorithm>
#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

struct HSDialogCenter::State {
  mutable std::mutex lock;
  std::vector<std::shared_ptr<HSDialogAgent>> agents;  // in the order of their registration
  std::map<std::uint64_t, Open> open;
  std::uint64_t lastNumber = 0;
  bool isClosed = false;

  // With the lock held.
  std::shared_ptr<HSDialogAgent> agentFor(const std::string& client) const {
    for (auto agent = agents.rbegin(); agent != agents.rend(); ++agent)
      if ((*agent)->client() == client) return *agent;
    return agents.empty() ? nullptr : agents.back();
  }

  // Why no more dialogs can be open, or nullptr. With the lock held.
  const char* refusal(const std::string& client) const {
    if (isClosed) return "the service ends";
    if (agents.empty()) return "there is nobody to show it";
    if (open.size() >= kMaxOpenDialogs) return "too many are open";
    const auto same = std::count_if(
        open.begin(), open.end(), [&](const auto& entry) { return entry.second.client == client; });
    return static_cast<std::size_t>(same) >= kMaxOpenDialogsPerClient
               ? "too many of this client are open"
               : nullptr;
  }

  std::optional<Open> take(std::uint64_t number, const HSDialogAgent* of = nullptr) {
    const std::lock_guard guard(lock);
    const auto found = open.find(number);
    if (found == open.end() || (of != nullptr && found->second.agent.get() != of))
      return std::nullopt;
    Open taken = std::move(found->second);
    open.erase(found);
    return taken;
  }
};

HSDialogCenter& HSDialogCenter::shared() {
  return SharedInstance<HSDialogCenter>::get([] { return std::make_unique<HSDialogCenter>(); });
}

HSDialogCenter::HSDialogCenter() : _state(std::make_shared<State>()) {}

HSDialogCenter::~HSDialogCenter() {
  close();
}

void HSDialogCenter::close() {
  std::vector<std::uint64_t> numbers;
  {
    const std::lock_guard guard(_state->lock);
    _state->isClosed = true;
    for (const auto& [number, open] : _state->open) numbers.push_back(number);
  }
  for (const std::uint64_t number : numbers) dismiss(_state, number, "the service ends");
}

std::uint64_t HSDialogCenter::show(const HSDialog& dialog, const std::string& client,
                                   const Answered& answered) {
  std::uint64_t number = 0;
  std::shared_ptr<HSDialogAgent> agent;
  const char* refusal = nullptr;
  {
    const std::lock_guard guard(_state->lock);
    refusal = _state->refusal(client);
    if (refusal == nullptr) {
      number = ++_state->lastNumber;
      agent = _state->agentFor(client);
      _state->open.emplace(number, Open{client, agent, answered, nullptr});
    }
  }
  if (refusal != nullptr) {
    logLevel(1, "%@: A dialog for %@ is not shown: %@", HSDialogCenter::kClassName, client,
             refusal);
    answered({});
    return 0;
  }
  const auto timer = RunLoop::main().addTimer(kPatienceSeconds, [state = _state, number] {
    dismiss(state, number, "nobody has answered");
  });
  bool isOpen = false;
  {
    const std::lock_guard guard(_state->lock);
    const auto found = _state->open.find(number);
    isOpen = found != _state->open.end();
    if (isOpen) found->second.timer = timer;
  }
  if (!isOpen) {  // has been dismissed meanwhile
    timer->invalidate();
    return 0;
  }
  logLevel(3, "%@: Showing dialog %lu for %@", HSDialogCenter::kClassName, number, client);
  HSDialog shown = dialog;
  shown.client = client;
  agent->showDialog(number, shown);
  return number;
}

void HSDialogCenter::dismiss(const std::shared_ptr<State>& state, std::uint64_t number,
                             const char* why, bool tellAgent) {
  std::optional<Open> taken = state->take(number);
  if (!taken) return;
  logLevel(2, "%@: Dialog %lu of %@ is dismissed: %@", HSDialogCenter::kClassName, number,
           taken->client, why);
  if (taken->timer) taken->timer->invalidate();
  if (tellAgent) taken->agent->dismissDialog(number);
  taken->answered({});
}

void HSDialogCenter::withdraw(std::uint64_t number) {
  dismiss(_state, number, "nobody waits for it");
}

bool HSDialogCenter::addAgent(std::shared_ptr<HSDialogAgent> agent) {
  const std::lock_guard guard(_state->lock);
  if (_state->agents.size() >= kMaxAgents) return false;
  _state->agents.push_back(std::move(agent));
  return true;
}

void HSDialogCenter::removeAgent(const std::shared_ptr<HSDialogAgent>& agent) {
  std::vector<std::uint64_t> numbers;
  {
    const std::lock_guard guard(_state->lock);
    std::erase(_state->agents, agent);
    for (const auto& [number, open] : _state->open)
      if (open.agent == agent) numbers.push_back(number);
  }
  for (const std::uint64_t number : numbers)
    dismiss(_state, number, "its agent has gone", /*tellAgent=*/false);
}

bool HSDialogCenter::answer(const HSDialogAgent& agent, std::uint64_t number,
                            HSDialogAnswer answer) {
  std::optional<Open> taken = _state->take(number, &agent);
  if (!taken) return false;
  if (taken->timer) taken->timer->invalidate();
  taken->answered(std::move(answer));
  return true;
}

void HSDialogCenter::dismissUnshown(const HSDialogAgent& agent, std::uint64_t number) {
  {
    const std::lock_guard guard(_state->lock);
    const auto found = _state->open.find(number);
    if (found == _state->open.end() || found->second.agent.get() != &agent) return;
  }
  dismiss(_state, number, "its agent does not answer");
}

std::size_t HSDialogCenter::agentCount() const {
  const std::lock_guard guard(_state->lock);
  return _state->agents.size();
}

std::size_t HSDialogCenter::openDialogCount() const {
  const std::lock_guard guard(_state->lock);
  return _state->open.size();
}

}  // namespace tallow
