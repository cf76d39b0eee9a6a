#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/Error.h"
#include "platform/Base/Secret.h"
#include "platform/Base/Value.h"
#include "platform/XPC/SDBus.h"

namespace tallow {

// What the generated glue reads from and writes to messages in place of the bus library's variants.
//
//   WireValue       v         s, b, x/t, d, ay (data), (d) (date), av, a{sv}
//   WireDictionary  a{sv}
//   WireHeaders     a{ss}
//   WireError       (sxa{sv})
//   WireSecret      (ay)      a password; its message is wiped when it goes
//
// Reading takes what is equivalent too: every integer type, object paths and signatures as strings,
// arrays of anything, dictionaries from strings to anything. A value that is nested too deeply, too
// large or of another type is read past, so that the arguments after it are read, and `refusal`
// says why it was refused.
//
// Writing a value that the bus would not carry throws: the bus daemon disconnects whoever sends it.
// Text that is not UTF-8 is written with U+FFFD in place of what is not; text is cut at a NUL.

struct WireValue {
  Value value;
  std::string refusal;
};

struct WireDictionary {
  Dictionary value;
  std::string refusal;
  std::size_t heldBytes = 0;  // what holding it costs, for counting against a caller
};

struct WireHeaders {
  Dictionary value;  // values that are not strings are left out
};

struct WireError {
  Error value;
};

struct WireSecret {
  Secret value;
  std::string refusal;
};

namespace wire {

// Containers in containers of a value, the value itself included.
inline constexpr int kMaxValueDepth = 64;
// Memory for a value that was read, its text, data and nodes together; the same for what is
// written.
inline constexpr std::size_t kMaxValueBytes = std::size_t{16} << 20;
inline constexpr const char* kNotTransferableError = "com.vantor.Error.NotTransferable";

// Of a password.
inline constexpr std::size_t kMaxSecretBytes = 4096;

// What this thread has written to messages through these types since it last asked.
std::size_t takeWrittenBytes();

WireDictionary dictionary(Dictionary value);
// At most one element, as nil-able values travel.
std::vector<WireValue> optionalValue(Value value);
std::vector<WireDictionary> optionalDictionary(std::optional<Dictionary> value);
std::vector<WireError> optionalError(const std::optional<Error>& error);
std::vector<std::string> optionalString(std::optional<std::string> text);

}  // namespace wire

sdbus::Message& operator<<(sdbus::Message& message, const WireValue& item);
sdbus::Message& operator<<(sdbus::Message& message, const WireDictionary& item);
sdbus::Message& operator<<(sdbus::Message& message, const WireHeaders& item);
sdbus::Message& operator<<(sdbus::Message& message, const WireError& item);
sdbus::Message& operator<<(sdbus::Message& message, const WireSecret& item);
sdbus::Message& operator>>(sdbus::Message& message, WireValue& item);
sdbus::Message& operator>>(sdbus::Message& message, WireDictionary& item);
sdbus::Message& operator>>(sdbus::Message& message, WireHeaders& item);
sdbus::Message& operator>>(sdbus::Message& message, WireError& item);
sdbus::Message& operator>>(sdbus::Message& message, WireSecret& item);

}  // namespace tallow

// Their signatures, as version 1 of the library asks for them and as version 2 does.
#define TALLOW_WIRE_SIGNATURE(type, text, ...)          \
  template <>                                           \
  struct sdbus::signature_of<tallow::type> {            \
    static constexpr bool is_valid = true;              \
    static constexpr bool is_trivial_dbus_type = false; \
    static constexpr std::array value{__VA_ARGS__};     \
    static std::string str() { return text; }           \
  }

TALLOW_WIRE_SIGNATURE(WireValue, "v", 'v');
TALLOW_WIRE_SIGNATURE(WireDictionary, "a{sv}", 'a', '{', 's', 'v', '}');
TALLOW_WIRE_SIGNATURE(WireHeaders, "a{ss}", 'a', '{', 's', 's', '}');
TALLOW_WIRE_SIGNATURE(WireError, "(sxa{sv})", '(', 's', 'x', 'a', '{', 's', 'v', '}', ')');

TALLOW_WIRE_SIGNATURE(WireSecret, "(ay)", '(', 'a', 'y', ')');

#undef TALLOW_WIRE_SIGNATURE
