#include "devstore/Staging.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "devstore/JSONReader.h"

namespace tallow::devstore {

namespace {

using nlohmann::json;

constexpr std::size_t kMostQueued = 1000;

Staging::StagedAnswer readAnswer(const Endpoint& endpoint, const json& source, std::string place,
                                 JSONReader& complaints) {
  JSONReader reader(source, std::move(place));
  AnswerSettings settings = AnswerSettings::read(reader);
  std::shared_ptr<const Endpoint::Settings> own = endpoint.readSettings(reader);
  complaints.adopt(reader.complaint());
  return {std::move(settings), std::move(own)};
}

}  // namespace

Staging::Staging(const EndpointTable& endpoints, std::function<void()> whenReset)
    : _endpoints(endpoints), _whenReset(std::move(whenReset)) {}

std::optional<std::string> Staging::apply(std::string_view jsonText) {
  json document;
  try {
    document = json::parse(jsonText);
  } catch (const json::exception& error) {
    return std::string("this is no JSON: ") + error.what();
  }

  JSONReader reader(document, "");
  const bool reset = reader.boolean("reset").value_or(false);
  std::map<std::string, Queue> changed;
  for (const std::string& name : _endpoints.names()) {
    const json* source = reader.member(name);
    if (source == nullptr) continue;
    Queue& queue = changed[name];
    if (source->is_null()) continue;
    const auto enqueue = [&](const json& object, std::string place) {
      StagedAnswer answer =
          readAnswer(*_endpoints.named(name)->endpoint, object, std::move(place), reader);
      const std::optional<std::int64_t> times = answer.settings.times();
      queue.push_back({std::make_shared<const StagedAnswer>(std::move(answer)), times});
    };
    if (!source->is_array()) {
      enqueue(*source, name);
    } else if (source->size() > kMostQueued) {
      reader.fail(name, "at most " + std::to_string(kMostQueued) + " answers can be staged");
    } else {
      for (std::size_t i = 0; i < source->size(); ++i) {
        enqueue((*source)[i], name + "[" + std::to_string(i) + "]");
      }
    }
  }
  if (std::optional<std::string> complaint = reader.complaint()) return complaint;

  {
    const std::lock_guard guard(_lock);
    if (reset) _queues.clear();
    for (auto& [name, queue] : changed) _queues[name] = std::move(queue);
  }
  if (reset) _whenReset();
  return std::nullopt;
}

std::shared_ptr<const Staging::StagedAnswer> Staging::next(const std::string& endpoint) {
  const std::lock_guard guard(_lock);
  Queue& queue = _queues[endpoint];
  if (queue.empty()) return nullptr;
  std::shared_ptr<const StagedAnswer> answer = queue.front().answer;
  if (std::optional<std::int64_t>& left = queue.front().timesLeft; left && --*left == 0) {
    queue.pop_front();
  }
  return answer;
}

std::string Staging::summary() const {
  json staged = json::object();
  const std::lock_guard guard(_lock);
  for (const std::string& name : _endpoints.names()) {
    const auto found = _queues.find(name);
    staged[name] = found == _queues.end() ? 0 : found->second.size();
  }
  return json{{"staged", staged}}.dump();
}

}  // namespace tallow::devstore
