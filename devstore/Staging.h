#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "devstore/AnswerSettings.h"
#include "devstore/EndpointTable.h"

namespace tallow::devstore {

// What the next answers of each endpoint shall be: a queue of staged answers per endpoint, the
// first one in force until it has been given as often as it says. Owned by the store; callable from
// any thread.
class Staging {
 public:
  struct StagedAnswer {
    AnswerSettings settings;
    std::shared_ptr<const Endpoint::Settings> own;  // nullptr when the endpoint has none
  };

  // `whenReset` is called, without any lock held, each time a text resets everything.
  Staging(const EndpointTable& endpoints, std::function<void()> whenReset);

  // Works in a JSON text (docs/devstore.md says what it may say), wholly or not at all. Returns
  // what is wrong with it.
  std::optional<std::string> apply(std::string_view jsonText);

  // The staged answer in force for an endpoint, counted as given; nullptr when nothing is staged.
  std::shared_ptr<const StagedAnswer> next(const std::string& endpoint);

  // Which endpoints there are, and how many staged answers wait at each, as JSON.
  std::string summary() const;

 private:
  struct Queued {
    std::shared_ptr<const StagedAnswer> answer;
    std::optional<std::int64_t> timesLeft;
  };
  using Queue = std::deque<Queued>;

  const EndpointTable& _endpoints;
  const std::function<void()> _whenReset;
  mutable std::mutex _lock;
  std::map<std::string, Queue> _queues;  // guarded by _lock
};

}  // namespace tallow::devstore
