#include "platform/PropertyList/BinaryListCheck.h"

#include <bit>
#include <cstring>
#include <string>

#include "platform/PropertyList/ListLimits.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::PropertyList {

namespace {

constexpr std::size_t kHeaderBytes = 8;
constexpr std::size_t kTrailerBytes = 32;

// The kinds of object: the high half of their first byte.
constexpr std::uint8_t kConstant = 0x0;
constexpr std::uint8_t kInteger = 0x1;
constexpr std::uint8_t kReal = 0x2;
constexpr std::uint8_t kDate = 0x3;
constexpr std::uint8_t kData = 0x4;
constexpr std::uint8_t kASCII = 0x5;
constexpr std::uint8_t kUTF16 = 0x6;
constexpr std::uint8_t kUID = 0x8;
constexpr std::uint8_t kArray = 0xA;
constexpr std::uint8_t kSet = 0xC;
constexpr std::uint8_t kDictionary = 0xD;

constexpr std::uint8_t kFalse = 0x8;
constexpr std::uint8_t kTrue = 0x9;

Error malformed(const char* what) {
  return listError(kMalformed, std::string("Malformed binary property list: ") + what);
}

bool isContainer(std::uint8_t kind) {
  return kind == kArray || kind == kDictionary;
}
bool isIntegerSize(std::size_t size) {
  return (size >= 1 && size <= 4) || size == 8;  // those that the library reads
}

}  // namespace

std::optional<Error> BinaryListCheck::run() {
  if (auto error = readTrailer()) return error;
  if (auto error = visit(_rootReference, false)) return error;
  while (!_path.empty()) {
    Container& container = _path.back();
    const bool isDictionary = container.object.kind == kDictionary;
    if (container.next == container.object.count * (isDictionary ? 2 : 1)) {
      _path.pop_back();
      continue;
    }
    const bool isKey = isDictionary && container.next % 2 == 0;
    if (auto error = visit(nextReference(container), isKey)) return error;
  }
  return std::nullopt;
}

std::optional<Error> BinaryListCheck::readTrailer() {
  if (_bytes.size() < kHeaderBytes + kTrailerBytes) return malformed("truncated");
  const std::size_t trailer = _bytes.size() - kTrailerBytes;
  _offsetSize = _bytes[trailer + 6];
  _referenceSize = _bytes[trailer + 7];
  _objectCount = integerAt(trailer + 8, 8);
  _rootReference = integerAt(trailer + 16, 8);
  const std::uint64_t table = integerAt(trailer + 24, 8);
  if (!isIntegerSize(_offsetSize) || !isIntegerSize(_referenceSize)) return malformed("field size");
  if (table < kHeaderBytes || table >= trailer) return malformed("offset table");
  _table = static_cast<std::size_t>(table);
  // The table fills what lies between the objects and the trailer: nothing is smuggled in between.
  if (_objectCount > trailer || _objectCount * _offsetSize != trailer - _table) {
    return malformed("offset table");
  }
  return std::nullopt;
}

std::optional<Error> BinaryListCheck::visit(std::uint64_t reference, bool isKey) {
  if (reference >= _objectCount) return malformed("reference");
  const std::uint64_t offset =
      integerAt(_table + static_cast<std::size_t>(reference) * _offsetSize, _offsetSize);
  if (offset < kHeaderBytes || offset >= _table) return malformed("offset");
  Object object;
  if (auto error = readObject(static_cast<std::size_t>(offset), object)) return error;
  if (isKey && object.kind != kASCII && object.kind != kUTF16) {
    return listError(kUnsupported, "Property list with a key that is no string");
  }
  // The library compares each object with all that contain it.
  _work += _path.size() + 1;
  if (++_nodes > kMaxNodes || _work > kMaxWork) {
    return listError(kTooLarge, "Property list with too many values");
  }
  if (!isContainer(object.kind)) return checkScalar(object);
  // A list that contains itself is caught here as well.
  if (_path.size() == kMaxDepth) return listError(kTooDeep, "Property list nested too deep");
  _path.push_back({object});
  return std::nullopt;
}

// Reads an object's marker and count, and checks that all of it lies before the offset table.
std::optional<Error> BinaryListCheck::readObject(std::size_t offset, Object& object) const {
  const std::uint8_t marker = _bytes[offset++];
  const std::uint8_t low = marker & 0xF;
  object.kind = marker >> 4;
  std::uint64_t count = low;
  std::size_t unit = 1;
  switch (object.kind) {
    case kConstant:
      if (low != kFalse && low != kTrue) {
        return listError(kUnsupported, "Property list with a null or fill object");
      }
      count = 0;
      break;
    case kInteger:
    case kReal:
    case kDate:
      if (low > 4) return malformed("number size");
      count = std::uint64_t{1} << low;
      break;
    case kData:
    case kASCII:
    case kUTF16:
    case kArray:
    case kDictionary:
      if (low == 0xF) {
        if (offset >= _table || _bytes[offset] >> 4 != kInteger || (_bytes[offset] & 0xF) > 3) {
          return malformed("count");
        }
        const std::size_t size = std::size_t{1} << (_bytes[offset] & 0xF);
        if (++offset + size > _table) return malformed("count");
        count = integerAt(offset, size);
        offset += size;
      }
      unit = object.kind == kUTF16        ? 2
             : object.kind == kArray      ? _referenceSize
             : object.kind == kDictionary ? 2 * _referenceSize
                                          : 1;
      break;
    case kUID:
    case kSet:
    default:
      return listError(kUnsupported, "Property list with an object of an unsupported kind");
  }
  if (count > (_table - offset) / unit) return malformed("object beyond the end");
  object.count = static_cast<std::size_t>(count);
  object.contents = offset;
  return std::nullopt;
}

std::optional<Error> BinaryListCheck::checkScalar(const Object& object) {
  switch (object.kind) {
    case kInteger:
      if (object.count == 16 && integerAt(object.contents, 8) != 0) {
        return listError(kUnsupported, "Property list with an integer of more than 64 bits");
      }
      return std::nullopt;
    case kReal:
      if (object.count != 4 && object.count != 8) return malformed("real size");
      return std::nullopt;
    case kDate:
      if (object.count != 8) return malformed("date size");
      _dates.push_back(std::bit_cast<double>(integerAt(object.contents, 8)));
      return std::nullopt;
    case kData:
    case kASCII:
    case kUTF16:
      // A unit of UTF-16 takes up to three bytes of what is kept.
      _contentBytes += object.kind == kUTF16 ? 3 * object.count : object.count;
      if (_contentBytes > kMaxContentBytes) {
        return listError(kTooLarge, "Property list with too much text or data");
      }
      return object.kind == kData ? std::nullopt : checkText(object);
    default:
      return std::nullopt;
  }
}

// The library would cut a text at a NUL, and drops what is no UTF-16.
std::optional<Error> BinaryListCheck::checkText(const Object& object) const {
  const auto contents = _bytes.subspan(object.contents);
  if (object.kind == kASCII) {
    if (std::memchr(contents.data(), 0, object.count) != nullptr) return malformed("string");
    return std::nullopt;
  }
  bool afterHighSurrogate = false;
  for (std::size_t index = 0; index < object.count; ++index) {
    const unsigned unit = contents[2 * index] * 256u + contents[2 * index + 1];
    const bool isLowSurrogate = unit >= 0xDC00 && unit <= 0xDFFF;
    if (unit == 0 || isLowSurrogate != afterHighSurrogate) return malformed("string");
    afterHighSurrogate = unit >= 0xD800 && unit <= 0xDBFF;
  }
  if (afterHighSurrogate) return malformed("string");
  return std::nullopt;
}

std::uint64_t BinaryListCheck::nextReference(Container& container) const {
  const std::size_t next = container.next++;
  // A dictionary's references: all keys, then all values.
  const std::size_t place =
      container.object.kind == kDictionary ? next / 2 + next % 2 * container.object.count : next;
  return integerAt(container.object.contents + place * _referenceSize, _referenceSize);
}

std::uint64_t BinaryListCheck::integerAt(std::size_t offset, std::size_t length) const {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : _bytes.subspan(offset, length)) value = value << 8 | byte;
  return value;
}

}  // namespace tallow::PropertyList
