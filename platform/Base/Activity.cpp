#include "platform/Base/Activity.h"

#include <utility>

namespace tallow {

namespace {
thread_local Activity::Scope* innermost = nullptr;
}  // namespace

Activity::Scope::Scope(std::string_view client, std::string_view operation)
    : _client(client),
      _operation(operation),
      _isNobody(false),
      _outer(std::exchange(innermost, this)) {}

Activity::Scope::Scope(std::shared_ptr<const Activity> activity)
    : _activity(std::move(activity)),
      _isNobody(_activity == nullptr),
      _outer(std::exchange(innermost, this)) {}

Activity::Scope::~Scope() {
  innermost = _outer;
}

std::shared_ptr<const Activity> Activity::current() {
  Scope* const scope = innermost;
  if (scope == nullptr || scope->_isNobody) return nullptr;
  if (!scope->_activity)
    scope->_activity = std::make_shared<Activity>(
        Activity{std::string(scope->_client), std::string(scope->_operation)});
  return scope->_activity;
}

std::function<void()> Activity::carriedTo(std::function<void()> block) {
  auto activity = current();
  if (!activity) return block;
  return [activity = std::move(activity), block = std::move(block)] {
    const Scope scope(activity);
    block();
  };
}

}  // namespace tallow
