#pragma once

#include <cstdlib>
#include <optional>
#include <utility>
#include <variant>

#include "platform/Base/Error.h"

namespace tallow {

// A value or the error that kept it from being made.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : _state(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : _state(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const { return _state.index() == 0; }
  T& operator*() { return std::get<0>(_state); }
  const T& operator*() const { return std::get<0>(_state); }
  T* operator->() { return &std::get<0>(_state); }
  const T* operator->() const { return &std::get<0>(_state); }
  const Error& error() const { return std::get<1>(_state); }

 private:
  std::variant<T, Error> _state;
};

}  // namespace tallow
