#pragma once

#include <functional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/VendBase/HSPendingReply.h"

namespace tallow {

template <class Reply>
struct ResultsOf;
template <class... Results>
struct ResultsOf<std::function<void(Results...)>> {
  using Type = std::tuple<std::decay_t<Results>...>;
};

// Calls an operation that answers through its last argument, and waits for its answer: its one
// result, or a tuple of several or of none. A reply that is dropped ends the test.
template <class Object, class Class, class... Parameters, class... Arguments>
auto answerOf(Object& object, void (Class::*operation)(Parameters...), Arguments... arguments) {
  using Reply = std::tuple_element_t<sizeof...(Parameters) - 1, std::tuple<Parameters...>>;
  using Results = typename ResultsOf<Reply>::Type;
  const HSPendingReply<Results> pending;
  (object.*operation)(std::move(arguments)..., [answer = pending.callback()](auto... results) {
    answer(Results(std::move(results)...));
  });
  Results results = pending.wait().value();
  if constexpr (std::tuple_size_v<Results> == 1)
    return std::get<0>(std::move(results));
  else
    return results;
}

}  // namespace tallow
