#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/Data.h"
#include "platform/Base/Date.h"

namespace tallow::devstore {

// One request as it came in. A plain value.
struct ReceivedRequest {
  using Field = std::pair<std::string, std::string>;

  std::string method;
  std::string path;               // percent-escapes decoded
  std::string query;              // as sent, without the "?"
  std::vector<Field> parameters;  // the query decoded
  std::vector<Field> headers;     // names as sent; sorted by name without regard to case
  Data body;
  bool secure = false;  // over https
  Date time;            // when the store had read it

  // The first header of that name (without regard to case); nullptr when there is none.
  const std::string* header(std::string_view name) const;
  // The first query parameter of exactly that name; nullptr when there is none.
  const std::string* parameter(std::string_view name) const;
};

}  // namespace tallow::devstore
