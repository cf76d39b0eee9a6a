// Property lists come from servers and from files that may be damaged.

#include <cstdlib>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "platform/PropertyList/PropertyList.h"

using namespace tallow;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Data bytes(std::string_view(reinterpret_cast<const char*>(data), size));
  const Result<Value> value = PropertyList::decode(bytes);
  if (!value) return 0;

  // What has been decoded must survive the format it is stored in. (Compared as bytes: a NaN does
  // not equal itself.) XML is for people and servers: it has no way to spell a control character.
  const Data stored = PropertyList::encode(*value, PropertyList::Format::Binary);
  const auto again = PropertyList::decode(stored);
  if (!again || PropertyList::encode(*again, PropertyList::Format::Binary) != stored) std::abort();
  PropertyList::encode(*value, PropertyList::Format::XML);
  return 0;
}
