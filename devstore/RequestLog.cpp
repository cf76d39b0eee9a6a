#include "devstore/RequestLog.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tallow::devstore {

namespace {

bool isFor(const ReceivedRequest& request, std::string_view path) {
  return path.empty() || request.path == path;
}

}  // namespace

void RequestLog::add(ReceivedRequest request) {
  const std::lock_guard guard(_lock);
  _bodyBytes += request.body.length();
  _requests.push_back(std::move(request));
  while (_requests.size() > kMostRequests ||
         (_bodyBytes > kMostBodyBytes && _requests.size() > 1)) {
    _bodyBytes -= _requests.front().body.length();
    _requests.pop_front();
    ++_dropped;
  }
  _changed.notify_all();
}

std::vector<ReceivedRequest> RequestLog::requests(std::string_view path) const {
  const std::lock_guard guard(_lock);
  std::vector<ReceivedRequest> found;
  std::copy_if(_requests.begin(), _requests.end(), std::back_inserter(found),
               [&](const ReceivedRequest& request) { return isFor(request, path); });
  return found;
}

std::uint64_t RequestLog::dropped() const {
  const std::lock_guard guard(_lock);
  return _dropped;
}

void RequestLog::clear() {
  const std::lock_guard guard(_lock);
  _requests.clear();
  _bodyBytes = 0;
  _dropped = 0;
}

bool RequestLog::wait(std::string_view path, std::size_t count,
                      std::chrono::milliseconds timeout) const {
  std::unique_lock guard(_lock);
  _changed.wait_for(guard, timeout, [&] { return _stopped || countFor(path) >= count; });
  return countFor(path) >= count;
}

void RequestLog::stop() {
  const std::lock_guard guard(_lock);
  _stopped = true;
  _changed.notify_all();
}

std::size_t RequestLog::countFor(std::string_view path) const {
  return static_cast<std::size_t>(
      std::count_if(_requests.begin(), _requests.end(),
                    [&](const ReceivedRequest& request) { return isFor(request, path); }));
}

}  // namespace tallow::devstore
