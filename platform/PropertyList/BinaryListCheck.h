#pragma once

#include <optional>
#include <span>
#include <vector>

#include "platform/PropertyList/PropertyListNode.h"

namespace tallow::PropertyList {

// Walks the objects of a binary list as the library will, but without making any: offsets, kinds,
// nesting, and how much the list unfolds to, since a few bytes can refer to the same objects over
// and over. What passes can be given to the library. Time is bounded by the limits, not by the
// list.
//
// On the way the walk notes the list's dates, in the order in which they are met, because the
// library gives them out rounded to microseconds and within 32 bits of seconds.
class BinaryListCheck {
 public:
  explicit BinaryListCheck(std::span<const std::uint8_t> bytes) : _bytes(bytes) {}

  // nullopt when the list is sound.
  std::optional<Error> run();

  std::vector<double> takeDates() { return std::move(_dates); }

 private:
  struct Object {
    std::uint8_t kind = 0;     // the high half of the marker
    std::size_t count = 0;     // elements, entries, bytes or UTF-16 units
    std::size_t contents = 0;  // where they begin
  };
  struct Container {
    Object object;
    std::size_t next = 0;  // of its references, keys and values taken in turn
  };

  std::optional<Error> readTrailer();
  std::optional<Error> visit(std::uint64_t reference, bool isKey);
  std::optional<Error> readObject(std::size_t offset, Object& object) const;
  std::optional<Error> checkScalar(const Object& object);
  std::optional<Error> checkText(const Object& object) const;
  std::uint64_t nextReference(Container& container) const;
  std::uint64_t integerAt(std::size_t offset, std::size_t length) const;

  std::span<const std::uint8_t> _bytes;
  std::size_t _offsetSize = 0;
  std::size_t _referenceSize = 0;
  std::uint64_t _objectCount = 0;
  std::uint64_t _rootReference = 0;
  std::size_t _table = 0;  // where the offsets begin, and the objects end
  std::vector<Container> _path;
  std::size_t _nodes = 0;
  std::size_t _work = 0;
  std::size_t _contentBytes = 0;
  std::vector<double> _dates;
};

}  // namespace tallow::PropertyList
