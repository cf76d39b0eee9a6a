#pragma once

#include <array>
#include <optional>

#include "platform/Base/Data.h"
#include "platform/Base/Value.h"

namespace tallow {

// What a response orders this machine to do about its identity, as its headers say it: reset the
// provisioning ("RP"), provision ("SP"), synchronise ("SM"). Names and values count exactly as
// written, the names in lower case. A plain value.
struct OrvAction {
  static constexpr std::array kHeaders = {"x-vantor-md-action", "x-vantor-md-data",
                                          "x-vantor-amd-action", "x-vantor-amd-data"};

  Value action, data;
  bool isAnonymous = false;

  // The anonymous pair counts only where neither header of the account's is there.
  static OrvAction readFrom(const Dictionary& headers);

  bool is(const char* name) const { return action.string() != nullptr && *action.string() == name; }
  bool isKnown() const { return is("RP") || is("SP") || is("SM"); }
  // Nil where the data is no text, or not base64.
  std::optional<Data> decodedData() const;
};

}  // namespace tallow
