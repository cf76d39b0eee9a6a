#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

#include "client/AccountServiceClient.h"

namespace tallow {

// What became of the calls. Any thread.
class SoakCalls {
 public:
  // Makes a call that is to be answered within `seconds`, as the interface says. True when it was
  // answered with anything but an error.
  template <class Call>
  bool make(const char* name, double seconds, Call call) {
    const auto began = std::chrono::steady_clock::now();
    const std::optional<Error> error = errorOf(call());
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    const std::lock_guard lock(_lock);
    ++_made;
    if (took > seconds - 1) {
      ++_hung;
      std::fprintf(stderr, "soak: %s took %.1f s\n", name, took);
    }
    if (took > _longest) {
      _longest = took;
      _longestName = name;
    }
    if (!error) return true;
    const bool isUnreachable = error->domain == AccountServiceClient::kErrorDomain &&
                               error->code == AccountServiceClient::kUnreachable;
    ++(isUnreachable ? _cutOff : _refused);
    return false;
  }

  std::uint64_t hung() const {
    const std::lock_guard lock(_lock);
    return _hung;
  }
  void print() const {
    const std::lock_guard lock(_lock);
    std::printf(
        "soak_calls %llu\nsoak_calls_cut_off_by_a_kill %llu\nsoak_calls_answered_with_an_error "
        "%llu\nsoak_calls_past_their_time %llu\nsoak_longest_call_s %.1f (%s)\n",
        static_cast<unsigned long long>(_made), static_cast<unsigned long long>(_cutOff),
        static_cast<unsigned long long>(_refused), static_cast<unsigned long long>(_hung), _longest,
        _longestName);
  }

 private:
  template <class T>
  static std::optional<Error> errorOf(const Result<T>& result) {
    return result ? std::nullopt : std::optional(result.error());
  }
  static std::optional<Error> errorOf(std::optional<Error> error) { return error; }

  mutable std::mutex _lock;
  std::uint64_t _made = 0, _cutOff = 0, _refused = 0, _hung = 0;
  double _longest = 0;
  const char* _longestName = "none";
};

}  // namespace tallow
