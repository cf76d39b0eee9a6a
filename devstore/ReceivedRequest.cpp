#include "devstore/ReceivedRequest.h"

#include <algorithm>

#include "platform/Base/ASCII.h"

namespace tallow::devstore {

namespace {

template <class Matches>
const std::string* firstValue(const std::vector<ReceivedRequest::Field>& fields, Matches matches) {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const auto& field) { return matches(field.first); });
  return found == fields.end() ? nullptr : &found->second;
}

}  // namespace

const std::string* ReceivedRequest::header(std::string_view name) const {
  return firstValue(headers, [&](const std::string& candidate) {
    return ascii::equalIgnoringCase(candidate, name);
  });
}

const std::string* ReceivedRequest::parameter(std::string_view name) const {
  return firstValue(parameters, [&](const std::string& candidate) { return candidate == name; });
}

}  // namespace tallow::devstore
