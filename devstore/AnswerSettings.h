#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "devstore/Answer.h"
#include "devstore/IdentityOrder.h"

namespace tallow::devstore {

class JSONReader;

// What can be staged of any endpoint's answer: its status, headers, body and delivery. Whatever is
// not staged stays as the endpoint has made it. An immutable value once read; callable from any
// thread.
class AnswerSettings {
 public:
  // Takes its keys from `reader`, which collects the complaints.
  static AnswerSettings read(JSONReader& reader);

  // The answer with everything staged worked in.
  Answer appliedTo(Answer answer) const;

  // The format in which an endpoint shall encode its property lists.
  PropertyList::Format format() const { return _format; }
  // What the answer's headers order about the machine's identity, if anything.
  const std::optional<IdentityOrder>& identityOrder() const { return _identityOrder; }
  // For how many answers the staging holds; nullopt: until reset.
  std::optional<std::int64_t> times() const { return _times; }

 private:
  struct Nested {
    std::size_t depth = 0;
  };
  struct Sized {
    std::size_t bytes = 0;
  };
  using Body = std::variant<std::monostate, Data, Value, Nested, Sized>;

  void readHeaders(JSONReader& reader);
  void readBody(JSONReader& reader);
  void readDelivery(JSONReader& reader);
  void applyHeaders(Answer& answer) const;
  void applyBody(Answer& answer) const;

  PropertyList::Format _format = PropertyList::Format::XML;
  std::optional<std::int64_t> _times;
  std::optional<int> _status;
  // A header without a value is one to take away.
  std::vector<std::pair<std::string, std::optional<std::string>>> _headers;
  std::optional<std::vector<std::string>> _cookies;
  std::optional<std::string> _contentType, _redirectTo;
  Body _body;
  std::optional<std::size_t> _flipBodyByte, _truncateAt, _stallAt;
  std::optional<std::chrono::milliseconds> _delay;
  bool _hang = false;
  std::optional<IdentityOrder> _identityOrder;
};

}  // namespace tallow::devstore
