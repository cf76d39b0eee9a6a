#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Base/Data.h"
#include "platform/Base/Date.h"

namespace tallow {

class Value;

// An immutable list of values. Copies share the elements. Safe to read from any thread at once.
class Array {
 public:
  Array() = default;
  Array(std::initializer_list<Value> elements);
  explicit Array(std::vector<Value> elements);

  std::size_t count() const;
  bool empty() const { return count() == 0; }
  const Value& operator[](std::size_t index) const;
  const Value* begin() const;
  const Value* end() const;

  friend bool operator==(const Array& a, const Array& b);

 private:
  std::shared_ptr<const std::vector<Value>> _elements;
};

// An immutable map from string keys to non-nil values. Copies share the entries (a copy is one
// reference count); setting() and removing() give a changed copy. Iterates in key order.
// Safe to read from any thread at once. Lookup is a binary search, no allocation.
class Dictionary {
 public:
  struct Entry;  // key and value, below

  Dictionary() = default;
  // Later entries replace earlier ones of the same key; entries with a nil value are left out.
  Dictionary(std::initializer_list<Entry> entries);
  explicit Dictionary(std::vector<Entry> entries);

  std::size_t count() const;
  bool empty() const { return count() == 0; }
  // The value for `key`, or the nil value.
  const Value& operator[](std::string_view key) const;
  bool contains(std::string_view key) const;
  const Entry* begin() const;
  const Entry* end() const;

  // A copy in which `key` has `value`; a nil value removes the key.
  Dictionary setting(std::string_view key, Value value) const;
  Dictionary removing(std::string_view key) const;
  // A copy with the entries of `other` added; on a clash the entry of `other` wins.
  Dictionary merging(const Dictionary& other) const;

  // True when both share the same storage (identity, not equality).
  bool isSameAs(const Dictionary& other) const { return _entries == other._entries; }

  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  std::shared_ptr<const std::vector<Entry>> _entries;
};

// A property-list value: nil, boolean, number, string, data, date, array or dictionary.
// Immutable; copies share string, data, array and dictionary contents. Safe to read from any
// thread at once.
//
// Typed access never converts: string() of a number is nullptr. The few conversions that the
// system's rules ask for have their own names (boolValue, intValue, ...).
class Value {
 public:
  Value() = default;  // nil
  Value(std::nullptr_t) {}
  Value(std::nullopt_t) {}
  Value(bool value) : _payload(value) {}
  Value(int value) : _payload(static_cast<std::int64_t>(value)) {}
  Value(long value) : _payload(static_cast<std::int64_t>(value)) {}
  Value(long long value) : _payload(static_cast<std::int64_t>(value)) {}
  Value(unsigned value) : Value(static_cast<unsigned long long>(value)) {}
  Value(unsigned long value) : Value(static_cast<unsigned long long>(value)) {}
  Value(unsigned long long value);  // kept as std::int64_t where it fits, so that 5u equals 5
  Value(double value) : _payload(value) {}
  Value(const char* value) : Value(std::string(value)) {}
  Value(std::string_view value) : Value(std::string(value)) {}
  Value(std::string value) : _payload(std::make_shared<const std::string>(std::move(value))) {}
  Value(Data value) : _payload(std::move(value)) {}
  Value(Date value) : _payload(value) {}
  Value(Array value) : _payload(std::move(value)) {}
  Value(Dictionary value) : _payload(std::move(value)) {}
  template <class T>
  Value(const std::optional<T>& value) {
    if (value) *this = Value(*value);
  }

  bool isNil() const { return std::holds_alternative<std::monostate>(_payload); }
  explicit operator bool() const = delete;  // ask isNil() or boolValue()

  // Exact-type access; nullptr when the value is of another type. The pointer lives as long as
  // this value does.
  const bool* boolean() const { return std::get_if<bool>(&_payload); }
  const std::string* string() const;
  std::optional<std::string> stringOrNil() const;  // a copy
  const Data* data() const { return std::get_if<Data>(&_payload); }
  const Date* date() const { return std::get_if<Date>(&_payload); }
  const Array* array() const { return std::get_if<Array>(&_payload); }
  const Dictionary* dictionary() const { return std::get_if<Dictionary>(&_payload); }

  // Numbers: booleans, integers of either sign and reals.
  bool isNumber() const;
  bool isReal() const { return std::holds_alternative<double>(_payload); }
  // True for an integer above INT64_MAX; its value is then exact in unsignedValue().
  bool isLargeUnsigned() const { return std::holds_alternative<std::uint64_t>(_payload); }
  // The number converted as C converts it, out-of-range reals clamped; 0 when not a number.
  std::int64_t signedValue() const;
  std::uint64_t unsignedValue() const;
  double realValue() const;
  // The decimal text of a number ("18446744073709551615", "1", "0.5"); empty when not a number.
  std::string stringValue() const;

  // What "answers to boolValue" means: numbers (non-zero) and strings (leading white space, then
  // an optional sign and zeros, then one of YyTt1-9). nullopt for every other type.
  std::optional<bool> boolValue() const;
  // What "answers to intValue" means: numbers, and strings by their leading decimal digits, clamped
  // to 32 bits. nullopt for every other type.
  std::optional<std::int32_t> intValue() const;
  // The same with 64 bits.
  std::optional<std::int64_t> longLongValue() const;

  // "string", "number", "boolean", "data", "date", "array", "dictionary" or "nil", for messages.
  const char* typeName() const;

  // Deep equality. Numbers compare by value across integer and real; a boolean equals only a
  // boolean.
  friend bool operator==(const Value& a, const Value& b);

 private:
  using StringPointer = std::shared_ptr<const std::string>;
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, StringPointer, Data, Date,
               Array, Dictionary>
      _payload;
};

struct Dictionary::Entry {
  std::string key;
  Value value;
};

// For people and logs: strings as they are at the top level and quoted inside containers, data as
// <hex> (shortened past 64 bytes), "(null)" for nil. Bounded in depth and length, so that no
// hostile value makes a huge log line.
std::string description(const Value& value);
std::string description(const Array& array);
std::string description(const Dictionary& dictionary);
std::string description(const Data& data);

}  // namespace tallow
