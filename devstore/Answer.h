#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/Data.h"
#include "platform/Base/Value.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::devstore {

// What the store answers to one request, and how it delivers it. A plain value.
struct Answer {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;  // in the order they are added
  std::string contentType = "text/plain; charset=utf-8";
  Data body;

  // Delivery. What waits does so at the store's Holdup, under `ticket`.
  std::uint64_t ticket = 0;
  std::optional<std::chrono::milliseconds> delay;  // before the first byte
  bool hang = false;                               // before the first byte, until released
  std::optional<std::size_t> stallAt;              // after that many bytes of the body, likewise
  std::optional<std::size_t> truncateAt;  // close after that many bytes; Content-Length is whole
  bool closeAfter = false;                // close the connection once the answer has been sent

  static Answer propertyList(const Value& value, PropertyList::Format format);
  static Answer text(int status, std::string_view message);
  static Answer json(int status, std::string_view text);
  static Answer redirect(int status, std::string_view location);

  // Everything may stand in a header but what would end it: a store may well send odd bytes.
  static bool canBeHeaderText(std::string_view text);
  void addHeader(std::string_view name, std::string_view value);
  // Replaces every header of that name, without regard to case.
  void setHeader(std::string_view name, std::string_view value);
  void removeHeader(std::string_view name);
};

}  // namespace tallow::devstore
