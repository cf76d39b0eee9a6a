#include "platform/XPC/WireTypes.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "platform/Base/UTF8.h"

namespace tallow {

namespace {

// The bus daemon refuses messages whose arrays, structures and variants are nested deeper than
// this, and disconnects their sender.
constexpr int kMaxBusDepth = 64;
// The deepest place where the interfaces have a value: a(sxa{sv}).
constexpr int kDepthAroundAValue = 3;
// What a value costs beside its text and data.
constexpr std::size_t kNodeBytes = 32;

thread_local std::size_t writtenBytes = 0;

void check(int result, const char* what) {
  if (result >= 0) return;
  throw bus::makeError("org.freedesktop.DBus.Error.Failed",
                       std::string(what) + ": " + std::strerror(-result));
}

class ValueWriter {
 public:
  explicit ValueWriter(sdbus::Message& message) : _message(bus::raw(message)) {}

  void string(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    spend(text.size());
    if (isValidUTF8(text)) {
      bytes(text);
    } else {
      bytes(replacingInvalidUTF8(text));
    }
  }

  void integer(std::int64_t number) { append(SD_BUS_TYPE_INT64, &number); }

  void variant(const Value& value, int depth) {
    spend(kNodeBytes);
    if (const bool* boolean = value.boolean()) {
      open(SD_BUS_TYPE_VARIANT, "b");
      const int number = *boolean ? 1 : 0;
      append(SD_BUS_TYPE_BOOLEAN, &number);
    } else if (const std::string* text = value.string()) {
      open(SD_BUS_TYPE_VARIANT, "s");
      string(*text);
    } else if (value.isNumber()) {
      numberVariant(value);
    } else if (const Data* data = value.data()) {
      open(SD_BUS_TYPE_VARIANT, "ay");
      spend(data->length());
      check(sd_bus_message_append_array(_message, SD_BUS_TYPE_BYTE, data->bytes(), data->length()),
            "cannot write data");
    } else if (const Date* date = value.date()) {
      open(SD_BUS_TYPE_VARIANT, "(d)");
      open(SD_BUS_TYPE_STRUCT, "d");
      append(SD_BUS_TYPE_DOUBLE, &date->secondsSince1970);
      close();
    } else if (const Array* list = value.array()) {
      open(SD_BUS_TYPE_VARIANT, "av");
      array(*list, depth + 1);
    } else if (const Dictionary* entries = value.dictionary()) {
      open(SD_BUS_TYPE_VARIANT, "a{sv}");
      dictionary(*entries, depth + 1);
    } else {
      throw bus::makeError(wire::kNotTransferableError, "nil where the bus needs a value");
    }
    close();
  }

  void array(const Array& list, int depth) {
    enterDepth(depth + 2);
    open(SD_BUS_TYPE_ARRAY, "v");
    for (const Value& element : list) {
      if (!element.isNil()) variant(element, depth + 1);
    }
    close();
  }

  void dictionary(const Dictionary& entries, int depth) {
    enterDepth(depth + 3);
    open(SD_BUS_TYPE_ARRAY, "{sv}");
    for (const auto& [key, value] : entries) {
      open(SD_BUS_TYPE_DICT_ENTRY, "sv");
      string(key);
      variant(value, depth + 2);
      close();
    }
    close();
  }

  void headers(const Dictionary& entries) {
    open(SD_BUS_TYPE_ARRAY, "{ss}");
    for (const auto& [name, value] : entries) {
      const std::string* const text = value.string();
      if (text == nullptr) continue;
      open(SD_BUS_TYPE_DICT_ENTRY, "ss");
      string(name);
      string(*text);
      close();
    }
    close();
  }

  void open(char type, const char* contents) {
    check(sd_bus_message_open_container(_message, type, contents), "cannot open a container");
  }
  void close() { check(sd_bus_message_close_container(_message), "cannot close a container"); }

 private:
  void append(char type, const void* item) {
    check(sd_bus_message_append_basic(_message, type, item), "cannot write a value");
  }

  // Not as append() writes a string, which looks at every byte once more.
  void bytes(std::string_view text) {
    char* space = nullptr;
    check(sd_bus_message_append_string_space(_message, text.size(), &space),
          "cannot write a string");
    std::memcpy(space, text.data(), text.size());
  }

  void numberVariant(const Value& value) {
    if (value.isReal()) {
      open(SD_BUS_TYPE_VARIANT, "d");
      const double number = value.realValue();
      append(SD_BUS_TYPE_DOUBLE, &number);
    } else if (value.isLargeUnsigned()) {
      open(SD_BUS_TYPE_VARIANT, "t");
      const std::uint64_t number = value.unsignedValue();
      append(SD_BUS_TYPE_UINT64, &number);
    } else {
      open(SD_BUS_TYPE_VARIANT, "x");
      integer(value.signedValue());
    }
  }

  void spend(std::size_t bytes) {
    _bytes += bytes;
    writtenBytes += bytes;
    if (_bytes > wire::kMaxValueBytes)
      throw bus::makeError(wire::kNotTransferableError, "the value is larger than 16 MiB");
  }

  static void enterDepth(int depth) {
    if (depth > kMaxBusDepth)
      throw bus::makeError(wire::kNotTransferableError,
                           "the value is nested deeper than the bus carries");
  }

  sd_bus_message* _message;
  std::size_t _bytes = 0;
};

// Reads one value. What it refuses it reads past.
class ValueReader {
 public:
  explicit ValueReader(sdbus::Message& message) : _message(bus::raw(message)) {}

  // False at the end of the array that is being read.
  bool atEnd() {
    char type = 0;
    const char* contents = nullptr;
    const int found = sd_bus_message_peek_type(_message, &type, &contents);
    check(found, "cannot read a value");
    return found == 0;
  }

  // The next value, whatever its type.
  Value next(int depth) {
    char type = 0;
    const char* peeked = nullptr;
    check(sd_bus_message_peek_type(_message, &type, &peeked), "cannot read a value");
    const std::string contents = peeked == nullptr ? "" : peeked;  // lives only to the next peek
    spend(kNodeBytes);
    if (depth > wire::kMaxValueDepth) refuse("is nested deeper than 64 levels");
    if (_refusal.empty()) {
      switch (type) {
        case SD_BUS_TYPE_VARIANT: {
          enter(type, contents);
          Value value = next(depth + (contents == "v" ? 1 : 0));
          leave();
          return value;
        }
        case SD_BUS_TYPE_ARRAY:
          if (contents == "y") return data();
          if (contents[0] == SD_BUS_TYPE_DICT_ENTRY_BEGIN) return dictionary(contents, depth);
          return array(contents, depth);
        case SD_BUS_TYPE_STRUCT:
          if (contents == "d") return date();
          break;
        default:
          if (type != SD_BUS_TYPE_UNIX_FD) return basic(type);
          break;
      }
      refuse("contains a value that is no property-list value");
    }
    check(sd_bus_message_skip(_message, nullptr), "cannot skip a value");
    return {};
  }

  Dictionary dictionary(const std::string& contents, int depth) {
    const std::string entry = contents.substr(1, contents.size() - 2);
    if (entry[0] != SD_BUS_TYPE_STRING) refuse("contains a dictionary whose keys are not strings");
    std::vector<Dictionary::Entry> entries;
    enter(SD_BUS_TYPE_ARRAY, contents);
    while (_refusal.empty()) {
      const int entered =
          sd_bus_message_enter_container(_message, SD_BUS_TYPE_DICT_ENTRY, entry.c_str());
      check(entered, "cannot read a dictionary");
      if (entered == 0) break;
      std::string key = string(SD_BUS_TYPE_STRING);
      Value value = next(depth + 1);
      leave();
      entries.push_back({std::move(key), std::move(value)});
    }
    leave();
    return Dictionary(std::move(entries));
  }

  std::string string(char type) {
    const char* text = nullptr;
    check(sd_bus_message_read_basic(_message, type, static_cast<void*>(&text)),
          "cannot read a string");
    std::string copy = text;
    spend(copy.size());
    return copy;
  }

  std::int64_t integer() { return read<std::int64_t>(SD_BUS_TYPE_INT64); }

  bool enter(char type, const std::string& contents) {
    const int entered = sd_bus_message_enter_container(_message, type, contents.c_str());
    check(entered, "cannot open a container");
    return entered > 0;
  }

  void leave() {
    // What a refusal left unread.
    while (sd_bus_message_skip(_message, nullptr) > 0) continue;
    check(sd_bus_message_exit_container(_message), "cannot close a container");
  }

  std::string takeRefusal() { return std::move(_refusal); }
  std::size_t bytes() const { return _bytes; }

 private:
  template <class Number>
  Number read(char type) {
    Number number{};
    check(sd_bus_message_read_basic(_message, type, &number), "cannot read a value");
    return number;
  }

  Value basic(char type) {
    switch (type) {
      case SD_BUS_TYPE_BOOLEAN:
        return read<int>(type) != 0;
      case SD_BUS_TYPE_BYTE:
        return static_cast<int>(read<std::uint8_t>(type));
      case SD_BUS_TYPE_INT16:
        return static_cast<int>(read<std::int16_t>(type));
      case SD_BUS_TYPE_UINT16:
        return static_cast<int>(read<std::uint16_t>(type));
      case SD_BUS_TYPE_INT32:
        return read<std::int32_t>(type);
      case SD_BUS_TYPE_UINT32:
        return read<std::uint32_t>(type);
      case SD_BUS_TYPE_INT64:
        return read<std::int64_t>(type);
      case SD_BUS_TYPE_UINT64:
        return read<std::uint64_t>(type);
      case SD_BUS_TYPE_DOUBLE:
        return read<double>(type);
      default:  // strings, object paths, signatures
        return string(type);
    }
  }

  Value data() {
    const void* bytes = nullptr;
    std::size_t length = 0;
    check(sd_bus_message_read_array(_message, SD_BUS_TYPE_BYTE, &bytes, &length),
          "cannot read data");
    spend(length);
    if (!_refusal.empty()) return {};
    return Data(std::span(static_cast<const std::uint8_t*>(bytes), length));
  }

  Value date() {
    enter(SD_BUS_TYPE_STRUCT, "d");
    const Date date{read<double>(SD_BUS_TYPE_DOUBLE)};
    leave();
    return date;
  }

  Value array(const std::string& contents, int depth) {
    std::vector<Value> elements;
    enter(SD_BUS_TYPE_ARRAY, contents);
    while (_refusal.empty() && !atEnd()) elements.push_back(next(depth + 1));
    leave();
    return Array(std::move(elements));
  }

  void spend(std::size_t bytes) {
    _bytes += bytes;
    if (_bytes > wire::kMaxValueBytes) refuse("is larger than 16 MiB");
  }

  void refuse(const char* why) {
    if (_refusal.empty()) _refusal = why;
  }

  sd_bus_message* _message;
  std::size_t _bytes = 0;
  std::string _refusal;
};

}  // namespace

namespace wire {

std::size_t takeWrittenBytes() {
  return std::exchange(writtenBytes, 0);
}

std::vector<WireValue> optionalValue(Value value) {
  std::vector<WireValue> list;
  if (!value.isNil()) list.push_back({std::move(value), {}});
  return list;
}

WireDictionary dictionary(Dictionary value) {
  return {std::move(value), {}, 0};
}

std::vector<WireDictionary> optionalDictionary(std::optional<Dictionary> value) {
  std::vector<WireDictionary> list;
  if (value) list.push_back(dictionary(*std::move(value)));
  return list;
}

std::vector<WireError> optionalError(const std::optional<Error>& error) {
  std::vector<WireError> list;
  if (error) list.push_back({*error});
  return list;
}

std::vector<std::string> optionalString(std::optional<std::string> text) {
  std::vector<std::string> list;
  if (text) list.push_back(replacingInvalidUTF8(*text));
  return list;
}

}  // namespace wire

sdbus::Message& operator<<(sdbus::Message& message, const WireValue& item) {
  ValueWriter(message).variant(item.value, kDepthAroundAValue);
  return message;
}

sdbus::Message& operator<<(sdbus::Message& message, const WireDictionary& item) {
  ValueWriter(message).dictionary(item.value, kDepthAroundAValue);
  return message;
}

sdbus::Message& operator<<(sdbus::Message& message, const WireHeaders& item) {
  ValueWriter(message).headers(item.value);
  return message;
}

sdbus::Message& operator<<(sdbus::Message& message, const WireError& item) {
  ValueWriter writer(message);
  writer.open(SD_BUS_TYPE_STRUCT, "sxa{sv}");
  writer.string(item.value.domain);
  writer.integer(item.value.code);
  writer.dictionary(item.value.userInfo, kDepthAroundAValue);
  writer.close();
  return message;
}

sdbus::Message& operator>>(sdbus::Message& message, WireValue& item) {
  ValueReader reader(message);
  if (reader.atEnd()) {
    bus::MessageAccess::setAtEnd(message);
    return message;
  }
  item.value = reader.next(1);
  item.refusal = reader.takeRefusal();
  return message;
}

sdbus::Message& operator>>(sdbus::Message& message, WireDictionary& item) {
  ValueReader reader(message);
  if (reader.atEnd()) {
    bus::MessageAccess::setAtEnd(message);
    return message;
  }
  item.value = reader.dictionary("{sv}", 1);
  item.heldBytes = reader.bytes();
  item.refusal = reader.takeRefusal();
  return message;
}

sdbus::Message& operator>>(sdbus::Message& message, WireHeaders& item) {
  ValueReader reader(message);
  if (reader.atEnd()) {
    bus::MessageAccess::setAtEnd(message);
    return message;
  }
  item.value = reader.dictionary("{ss}", 1);
  return message;
}

sdbus::Message& operator>>(sdbus::Message& message, WireError& item) {
  ValueReader reader(message);
  if (reader.atEnd()) {
    bus::MessageAccess::setAtEnd(message);
    return message;
  }
  reader.enter(SD_BUS_TYPE_STRUCT, "sxa{sv}");
  item.value.domain = reader.string(SD_BUS_TYPE_STRING);
  item.value.code = reader.integer();
  item.value.userInfo = reader.dictionary("{sv}", 1);
  reader.leave();
  return message;
}

sdbus::Message& operator<<(sdbus::Message& message, const WireSecret& item) {
  sd_bus_message* const raw = bus::raw(message);
  check(sd_bus_message_sensitive(raw), "cannot protect a message");
  check(sd_bus_message_open_container(raw, SD_BUS_TYPE_STRUCT, "ay"), "cannot write a password");
  const std::string_view text = item.value.view();
  check(sd_bus_message_append_array(raw, SD_BUS_TYPE_BYTE, text.data(), text.size()),
        "cannot write a password");
  check(sd_bus_message_close_container(raw), "cannot write a password");
  return message;
}

sdbus::Message& operator>>(sdbus::Message& message, WireSecret& item) {
  sd_bus_message* const raw = bus::raw(message);
  check(sd_bus_message_sensitive(raw), "cannot protect a message");
  check(sd_bus_message_enter_container(raw, SD_BUS_TYPE_STRUCT, "ay"), "cannot read a password");
  const void* bytes = nullptr;
  std::size_t length = 0;
  check(sd_bus_message_read_array(raw, SD_BUS_TYPE_BYTE, &bytes, &length),
        "cannot read a password");
  if (length <= wire::kMaxSecretBytes) {
    item.value = Secret({static_cast<const char*>(bytes), length});
  } else {
    item.refusal = "is longer than a password";
  }
  check(sd_bus_message_exit_container(raw), "cannot read a password");
  return message;
}

}  // namespace tallow
