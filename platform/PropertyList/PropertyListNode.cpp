#include "platform/PropertyList/PropertyListNode.h"

#include <array>
#include <span>
#include <string_view>
#include <vector>

namespace tallow::PropertyList {

namespace {

Node nodeFromBinaryObject(std::span<const std::uint8_t> object) {
  constexpr std::string_view kMagic = "bplist00";
  std::vector<std::uint8_t> list(kMagic.begin(), kMagic.end());
  list.insert(list.end(), object.begin(), object.end());
  const std::size_t table = list.size();
  list.push_back(static_cast<std::uint8_t>(kMagic.size()));  // the offset of object 0

  std::array<std::uint8_t, 32> trailer{};
  trailer[6] = 1;                                  // bytes of an offset
  trailer[7] = 1;                                  // bytes of a reference
  trailer[15] = 1;                                 // number of objects
  trailer[31] = static_cast<std::uint8_t>(table);  // where the offsets are
  list.insert(list.end(), trailer.begin(), trailer.end());

  plist_t node = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(list.data()),
                 static_cast<std::uint32_t>(list.size()), &node);
  return Node(node);
}

}  // namespace

Node nodeFromBits(std::uint8_t marker, std::uint64_t bits, bool highZeros) {
  std::array<std::uint8_t, 17> object{marker};
  std::size_t length = highZeros ? 9 : 1;
  for (int shift = 56; shift >= 0; shift -= 8) {
    object[length++] = static_cast<std::uint8_t>(bits >> shift);
  }
  return nodeFromBinaryObject(std::span(object).first(length));
}

}  // namespace tallow::PropertyList
