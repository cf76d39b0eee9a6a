#include "platform/Base/Format.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>

#include "platform/Base/UTF8.h"

namespace tallow {

namespace {

// What one argument may contribute: no peer's text makes a message of megabytes.
constexpr std::size_t kMaxArgumentBytes = 64 * 1024;
constexpr int kMaxPrecision = 20;
constexpr int kDefaultPrecision = 6;

[[noreturn]] void mismatch(std::string_view format) {
  std::fprintf(stderr, "formatText: \"%.*s\" does not fit its arguments\n",
               static_cast<int>(format.size()), format.data());
  std::abort();
}

template <class Integer>
void appendInteger(std::string& out, Integer value) {
  std::array<char, 24> text{};
  out.append(text.data(), std::to_chars(text.begin(), text.end(), value).ptr);
}

void appendFixed(std::string& out, double value, int precision) {
  std::array<char, 310 + kMaxPrecision + 2> text{};  // the largest double has 309 digits
  out.append(
      text.data(),
      std::to_chars(text.begin(), text.end(), value, std::chars_format::fixed, precision).ptr);
}

void appendBounded(std::string& out, std::string_view text) {
  const std::string_view kept = prefixOnCharacterBoundary(text, kMaxArgumentBytes);
  out += kept;
  if (kept.size() < text.size()) out += "...";
}

// One conversion, read from after its '%' on.
struct Conversion {
  char kind = 0;
  int precision = kDefaultPrecision;
};

Conversion readConversion(std::string_view format, std::size_t& index) {
  Conversion conversion;
  if (index < format.size() && format[index] == '.') {
    conversion.precision = 0;
    for (++index; index < format.size() && format[index] >= '0' && format[index] <= '9'; ++index) {
      conversion.precision =
          std::min(conversion.precision * 10 + (format[index] - '0'), kMaxPrecision);
    }
  }
  while (index < format.size() && format[index] == 'l') ++index;
  if (index == format.size()) mismatch(format);
  conversion.kind = format[index++];
  return conversion;
}

void appendArgument(std::string& out, std::string_view format, const Conversion& conversion,
                    const FormatArgument& argument) {
  const bool isInteger = argument.kind() == FormatArgument::Kind::Signed ||
                         argument.kind() == FormatArgument::Kind::Unsigned;
  switch (conversion.kind) {
    case '@':
      return argument.appendTo(out);
    case 's':
      if (argument.kind() != FormatArgument::Kind::Text) mismatch(format);
      return argument.appendTo(out);
    case 'd':
    case 'i':
    case 'u':
      if (!isInteger) mismatch(format);
      return argument.appendTo(out);
    case 'f':
      if (argument.kind() != FormatArgument::Kind::Real) mismatch(format);
      return appendFixed(out, argument.realValue(), conversion.precision);
    default:
      mismatch(format);
  }
}

}  // namespace

void FormatArgument::appendTo(std::string& out) const {
  switch (_kind) {
    case Kind::Signed:
      return appendInteger(out, _signed);
    case Kind::Unsigned:
      return appendInteger(out, _unsigned);
    case Kind::Real: {
      std::array<char, 32> text{};
      out.append(text.data(), std::to_chars(text.begin(), text.end(), _real).ptr);
      return;
    }
    case Kind::Text:
      return appendBounded(out, _text);
    case Kind::Object:
      return appendBounded(out, _describe(_object));
  }
}

std::string formatText(std::string_view format, std::span<const FormatArgument> arguments) {
  std::string out;
  out.reserve(format.size() + 32 * arguments.size());
  auto argument = arguments.begin();
  for (std::size_t index = 0; index < format.size();) {
    const std::size_t percent = std::min(format.find('%', index), format.size());
    out += format.substr(index, percent - index);
    index = percent + 1;
    if (percent == format.size()) break;
    if (index < format.size() && format[index] == '%') {
      out += '%';
      ++index;
      continue;
    }
    const Conversion conversion = readConversion(format, index);
    if (argument == arguments.end()) mismatch(format);
    appendArgument(out, format, conversion, *argument++);
  }
  if (argument != arguments.end()) mismatch(format);
  return out;
}

}  // namespace tallow
