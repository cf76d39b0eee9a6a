#include "platform/Base/Value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include "platform/Base/ASCII.h"

namespace tallow {

namespace {

constexpr bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string_view withoutLeadingSpace(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  return text;
}

template <class Integer>
Integer clampedInteger(double real) {
  if (std::isnan(real)) return 0;
  // The upper limit is not a double itself: the next double above it is 2^63 or 2^64.
  if (real >= static_cast<double>(std::numeric_limits<Integer>::max())) {
    return std::numeric_limits<Integer>::max();
  }
  if (real <= static_cast<double>(std::numeric_limits<Integer>::min())) {
    return std::numeric_limits<Integer>::min();
  }
  return static_cast<Integer>(real);
}

// The number at the beginning of `text`: white space, sign, decimal digits; clamped, 0 without
// digits.
std::int64_t leadingInteger(std::string_view text) {
  text = withoutLeadingSpace(text);
  const bool negative = !text.empty() && text.front() == '-';
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  const auto end = std::find_if_not(text.begin(), text.end(), ascii::isDigit);
  if (end == text.begin()) return 0;
  std::uint64_t magnitude = 0;
  const char* digits = text.data();
  const auto parsed = std::from_chars(digits, digits + (end - text.begin()), magnitude);
  if (parsed.ec == std::errc::result_out_of_range) {
    magnitude = std::numeric_limits<std::uint64_t>::max();
  }
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (!negative) return static_cast<std::int64_t>(std::min(magnitude, kMax));
  return magnitude > kMax ? std::numeric_limits<std::int64_t>::min()
                          : -static_cast<std::int64_t>(magnitude);
}

bool meansTrue(std::string_view text) {
  text = withoutLeadingSpace(text);
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  while (!text.empty() && text.front() == '0') text.remove_prefix(1);
  return !text.empty() && std::string_view("YyTt123456789").find(text.front()) != text.npos;
}

template <class Number>
std::string decimalText(Number number) {
  std::array<char, 32> text{};
  return {text.begin(), std::to_chars(text.begin(), text.end(), number).ptr};
}

// Exact: a 64-bit integer and a double may differ although both convert to the same double.
bool equalNumbers(std::int64_t integer, double real) {
  return real >= -0x1p63 && real < 0x1p63 && static_cast<double>(integer) == real &&
         static_cast<std::int64_t>(real) == integer;
}
bool equalNumbers(std::uint64_t integer, double real) {
  return real >= 0 && real < 0x1p64 && static_cast<double>(integer) == real &&
         static_cast<std::uint64_t>(real) == integer;
}

}  // namespace

Value::Value(unsigned long long value) {
  if (value <= static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max())) {
    _payload = static_cast<std::int64_t>(value);
  } else {
    _payload = static_cast<std::uint64_t>(value);
  }
}

const std::string* Value::string() const {
  const auto* pointer = std::get_if<StringPointer>(&_payload);
  return pointer != nullptr ? pointer->get() : nullptr;
}

std::optional<std::string> Value::stringOrNil() const {
  const std::string* const text = string();
  return text != nullptr ? std::optional(*text) : std::nullopt;
}

bool Value::isNumber() const {
  return boolean() != nullptr || isReal() || isLargeUnsigned() ||
         std::holds_alternative<std::int64_t>(_payload);
}

std::int64_t Value::signedValue() const {
  if (const auto* value = std::get_if<std::int64_t>(&_payload)) return *value;
  if (const auto* value = std::get_if<std::uint64_t>(&_payload)) {
    return static_cast<std::int64_t>(*value);
  }
  if (const auto* value = std::get_if<double>(&_payload))
    return clampedInteger<std::int64_t>(*value);
  const bool* value = boolean();
  return value != nullptr && *value ? 1 : 0;
}

std::uint64_t Value::unsignedValue() const {
  if (const auto* value = std::get_if<double>(&_payload)) {
    return clampedInteger<std::uint64_t>(*value);
  }
  return static_cast<std::uint64_t>(signedValue());
}

double Value::realValue() const {
  if (const auto* value = std::get_if<double>(&_payload)) return *value;
  if (const auto* value = std::get_if<std::uint64_t>(&_payload)) return static_cast<double>(*value);
  return static_cast<double>(signedValue());
}

std::string Value::stringValue() const {
  if (const auto* value = std::get_if<double>(&_payload)) return decimalText(*value);
  if (isLargeUnsigned()) return decimalText(unsignedValue());
  return isNumber() ? decimalText(signedValue()) : std::string();
}

std::optional<bool> Value::boolValue() const {
  if (const std::string* text = string()) return meansTrue(*text);
  if (isReal()) return realValue() != 0;
  if (isNumber()) return signedValue() != 0;
  return std::nullopt;
}

std::optional<std::int64_t> Value::longLongValue() const {
  if (const std::string* text = string()) return leadingInteger(*text);
  if (isLargeUnsigned()) return std::numeric_limits<std::int64_t>::max();
  if (isNumber()) return signedValue();
  return std::nullopt;
}

std::optional<std::int32_t> Value::intValue() const {
  const std::optional<std::int64_t> wide = longLongValue();
  if (!wide) return std::nullopt;
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(*wide, Limits::min(), Limits::max()));
}

const char* Value::typeName() const {
  if (isNil()) return "nil";
  if (boolean() != nullptr) return "boolean";
  if (string() != nullptr) return "string";
  if (data() != nullptr) return "data";
  if (date() != nullptr) return "date";
  if (array() != nullptr) return "array";
  if (dictionary() != nullptr) return "dictionary";
  return "number";
}

bool operator==(const Value& a, const Value& b) {
  return std::visit(
      [](const auto& left, const auto& right) {
        using Left = std::remove_cvref_t<decltype(left)>;
        using Right = std::remove_cvref_t<decltype(right)>;
        constexpr bool leftIsInteger =
            std::is_same_v<Left, std::int64_t> || std::is_same_v<Left, std::uint64_t>;
        constexpr bool rightIsInteger =
            std::is_same_v<Right, std::int64_t> || std::is_same_v<Right, std::uint64_t>;
        if constexpr (std::is_same_v<Left, Value::StringPointer> && std::is_same_v<Left, Right>) {
          return *left == *right;
        } else if constexpr (std::is_same_v<Left, Right>) {
          return left == right;
        } else if constexpr (leftIsInteger && std::is_same_v<Right, double>) {
          return equalNumbers(left, right);
        } else if constexpr (std::is_same_v<Left, double> && rightIsInteger) {
          return equalNumbers(right, left);
        } else {
          return false;
        }
      },
      a._payload, b._payload);
}

}  // namespace tallow
