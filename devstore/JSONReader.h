#pragma once

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/Data.h"

namespace tallow::devstore {

// Reads one JSON object that a person has written and says clearly what is wrong with it: the first
// complaint names the place ("bag.times: must be a whole number from 1 to 1000000"). A key that
// nobody has asked for is a complaint too, so that a misspelt key never passes silently.
//
// Refers to the object, which must outlive it; made for one reading on one thread.
class JSONReader {
 public:
  // `where` is the object's own place, "" for the outermost.
  JSONReader(const nlohmann::json& object, std::string where);

  // The member as it is; nullptr when absent. Every other operation is nullopt when the member is
  // absent or has been complained about.
  const nlohmann::json* member(std::string_view key);
  std::optional<bool> boolean(std::string_view key);
  std::optional<std::int64_t> integer(std::string_view key, std::int64_t least, std::int64_t most);
  std::optional<std::string> string(std::string_view key);
  // A string alone counts as a list of one.
  std::optional<std::vector<std::string>> strings(std::string_view key);
  std::optional<Data> base64(std::string_view key);

  template <class E>
  std::optional<E> choice(std::string_view key,
                          std::initializer_list<std::pair<std::string_view, E>> choices) {
    const std::optional<std::string> name = string(key);
    if (!name) return std::nullopt;
    std::string known;
    for (const auto& [text, value] : choices) {
      if (text == *name) return value;
      known.append(known.empty() ? "" : ", ").append(text);
    }
    fail(key, "must be one of " + known);
    return std::nullopt;
  }

  // Adds a complaint about a member.
  void fail(std::string_view key, std::string_view complaint);
  // Adds the complaint of a reader of a member.
  void adopt(const std::optional<std::string>& complaint);
  // The place of a member, for messages: "bag.set".
  std::string place(std::string_view key) const;
  // To be called last: the first complaint, a key that nobody has asked for included.
  std::optional<std::string> complaint();

 private:
  const nlohmann::json& _object;
  std::string _where;
  std::vector<std::string> _known;
  std::optional<std::string> _complaint;
};

}  // namespace tallow::devstore
