#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

// Formatting of the system's message texts. The texts use a small, fixed set of conversions:
//
//   %@                object: anything with a description(), a string, a number; "(null)" for nil
//   %s                string
//   %d %i %ld %li     integer, enumerator or boolean; printed by its own type, never truncated
//   %u %lu            the same
//   %.2f %f           floating point, with optional precision
//   %%                a percent sign
//
// One argument contributes at most 64 KiB of text; what is cut ends in "...".
//
// A format is checked against its arguments while compiling: a wrong count or kind does not build.

namespace tallow {

// One argument, by reference; it must outlive the formatting call. Nothing is rendered before
// format() asks for it.
class FormatArgument {
 public:
  enum class Kind { Signed, Unsigned, Real, Text, Object };

  template <class T>
  static FormatArgument make(const T& value);

  Kind kind() const { return _kind; }
  void appendTo(std::string& out) const;  // as %@ would render it
  std::int64_t signedValue() const { return _signed; }
  std::uint64_t unsignedValue() const { return _unsigned; }
  double realValue() const { return _real; }

 private:
  Kind _kind = Kind::Text;
  union {
    std::int64_t _signed;
    std::uint64_t _unsigned;
    double _real;
  };
  std::string_view _text;
  const void* _object = nullptr;
  std::string (*_describe)(const void*) = nullptr;
};

// Renders `format`. The format has been checked; a mismatch here is a programmer error and aborts.
std::string formatText(std::string_view format, std::span<const FormatArgument> arguments);

namespace format_detail {

template <class T>
inline constexpr bool isText = std::is_convertible_v<const T&, std::string_view>;
template <class T>
struct OptionalOf : std::false_type {};
template <class T>
struct OptionalOf<std::optional<T>> : std::true_type {
  using type = T;
};

enum class Slot { Integer, Real, Text, Object };

template <class T>
consteval Slot slotOf() {
  using U = std::remove_cvref_t<T>;
  if constexpr (std::is_integral_v<U> || std::is_enum_v<U>)
    return Slot::Integer;
  else if constexpr (std::is_floating_point_v<U>)
    return Slot::Real;
  else if constexpr (isText<U>)
    return Slot::Text;
  else
    return Slot::Object;
}

// Called (and thus rejected by the compiler) when a format does not fit its arguments.
void formatDoesNotFitItsArguments();

consteval void check(std::string_view format, std::initializer_list<Slot> slots) {
  auto slot = slots.begin();
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') continue;
    if (++i == format.size()) formatDoesNotFitItsArguments();
    if (format[i] == '%') continue;
    if (format[i] == '.') {
      do ++i;
      while (i < format.size() && format[i] >= '0' && format[i] <= '9');
    }
    while (i < format.size() && format[i] == 'l') ++i;
    if (i == format.size() || slot == slots.end()) formatDoesNotFitItsArguments();
    const Slot given = *slot++;
    switch (format[i]) {
      case '@':
        break;
      case 's':
        if (given != Slot::Text) formatDoesNotFitItsArguments();
        break;
      case 'd':
      case 'i':
      case 'u':
        if (given != Slot::Integer) formatDoesNotFitItsArguments();
        break;
      case 'f':
        if (given != Slot::Real) formatDoesNotFitItsArguments();
        break;
      default:
        formatDoesNotFitItsArguments();
    }
  }
  if (slot != slots.end()) formatDoesNotFitItsArguments();
}

}  // namespace format_detail

// A format text that has been checked against Args; made implicitly from a string literal.
template <class... Args>
class CheckedFormat {
 public:
  consteval CheckedFormat(const char* text) : _text(text) {
    format_detail::check(_text, {format_detail::slotOf<Args>()...});
  }
  constexpr std::string_view text() const { return _text; }

 private:
  std::string_view _text;
};

template <class... Args>
std::string format(std::type_identity_t<CheckedFormat<Args...>> text, const Args&... arguments) {
  const FormatArgument packed[sizeof...(Args) + 1] = {FormatArgument::make(arguments)...};
  return formatText(text.text(), {packed, sizeof...(Args)});
}

template <class T>
FormatArgument FormatArgument::make(const T& value) {
  FormatArgument argument;
  argument._unsigned = 0;
  if constexpr (std::is_same_v<T, std::nullopt_t> || std::is_null_pointer_v<T>) {
    argument._text = "(null)";
  } else if constexpr (std::is_enum_v<T>) {
    argument._kind = Kind::Signed;
    argument._signed = static_cast<std::int64_t>(value);
  } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T> && !std::is_same_v<T, bool>) {
    argument._kind = Kind::Unsigned;
    argument._unsigned = value;
  } else if constexpr (std::is_integral_v<T>) {
    argument._kind = Kind::Signed;
    argument._signed = value;
  } else if constexpr (std::is_floating_point_v<T>) {
    argument._kind = Kind::Real;
    argument._real = value;
  } else if constexpr (format_detail::isText<T>) {
    if constexpr (std::is_pointer_v<T>) {
      argument._text = value != nullptr ? std::string_view(value) : std::string_view("(null)");
    } else {
      argument._text = std::string_view(value);
    }
  } else if constexpr (format_detail::OptionalOf<T>::value) {
    if (value) return make(*value);
    argument._text = "(null)";
  } else {
    argument._kind = Kind::Object;
    argument._object = &value;
    argument._describe = [](const void* object) {
      const T& object_ = *static_cast<const T*>(object);
      if constexpr (requires {
                      *object_;
                      object_ == nullptr;
                    }) {
        return object_ == nullptr ? std::string("(null)") : description(*object_);
      } else {
        return description(object_);
      }
    };
  }
  return argument;
}

}  // namespace tallow
