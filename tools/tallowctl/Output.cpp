#include "tools/tallowctl/Output.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "client/AccountServiceClient.h"
#include "platform/Base/UTF8.h"
#include "platform/PropertyList/JSON.h"
#include "platform/VendBase/RecentFailures.h"

namespace tallow::ctl {

namespace {

// What is not seen as itself, written by `escape`.
std::string withEscapes(std::string_view text, std::string (*escape)(unsigned code)) {
  const std::string valid = replacingInvalidUTF8(text);
  std::string safe;
  safe.reserve(valid.size());
  for (std::string_view rest = valid; !rest.empty();) {
    const Character next = firstCharacter(rest);
    if (isSeenAsItself(next.codePoint)) {
      safe += rest.substr(0, next.bytes);
    } else {
      safe += escape(static_cast<unsigned>(next.codePoint));
    }
    rest.remove_prefix(next.bytes);
  }
  return safe;
}

// One line, in which only texts can have such characters.
std::string jsonOf(const Value& value) {
  return withEscapes(JSON::encode(value), [](unsigned code) {
    char escaped[16];
    if (code < 0x10000) {
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", code);
    } else {
      const unsigned above = code - 0x10000;
      std::snprintf(escaped, sizeof(escaped), "\\u%04x\\u%04x", 0xd800 + (above >> 10),
                    0xdc00 + (above & 0x3ff));
    }
    return std::string(escaped);
  });
}

}  // namespace

std::string printable(std::string_view text) {
  return withEscapes(text, [](unsigned code) {
    char escaped[16];
    std::snprintf(escaped, sizeof(escaped), code < 0x100 ? "\\x%02x" : "\\u{%04x}", code);
    return std::string(escaped);
  });
}

namespace {

// How many columns the text takes, near enough for a table.
std::size_t width(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string cell(const Value& value) {
  if (value.isNil()) return "";
  if (const bool* boolean = value.boolean()) return *boolean ? "yes" : "no";
  if (const std::string* string = value.string()) return printable(*string);
  if (value.isNumber()) return value.stringValue();
  if (const Date* date = value.date()) return description(*date);
  return printable(JSON::encode(value));
}

void print(const std::string& text) {
  std::printf("%s\n", text.c_str());
}

void printRows(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  for (const auto& row : rows) {
    std::string text;
    for (std::size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] - width(row[i]) + 2, ' ');
    }
    print(text);
  }
}

}  // namespace

// The words of the bus itself.
bool isTurnedAwayByBus(const Error& error) {
  return error.localizedDescription().find("Rejected send message") != std::string::npos;
}

const char* adviceFor(const Error& error) {
  if (error.domain != AccountServiceClient::kErrorDomain) {
    const FailureKind kind = failureKindOf(error);
    return kind == FailureKind::Other ? "" : tallow::adviceFor(kind);
  }
  switch (error.code) {
    case AccountServiceClient::kUnreachable:
      return "Is a message bus running, and is tallowd installed for it? See tallowd(8).";
    case AccountServiceClient::kRefused:
      if (isTurnedAwayByBus(error))
        return "The system-wide service answers root and the members of its group: adduser USER "
               "tallowd.";
      return "Name a client with --client IDENTIFIER, or describe this one in a client "
             "descriptor: tallowd-clients.d(5).";
    case AccountServiceClient::kInvalidArgument:
      return "See tallowctl(1) for what it takes.";
    default:
      return "The log says more: journalctl --user -u tallowd (with --system: journalctl -u "
             "tallowd-daemon).";
  }
}

void Output::value(const Value& value) const {
  if (_json) {
    print(jsonOf(value));
  } else if (const Dictionary* dictionary = value.dictionary()) {
    table(*dictionary);
  } else if (const Array* array = value.array()) {
    for (const Value& element : *array) print(cell(element));
  } else if (!value.isNil()) {
    print(cell(value));
  }
}

void Output::table(const Dictionary& dictionary) const {
  if (_json) {
    print(jsonOf(dictionary));
    return;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& entry : dictionary) rows.push_back({printable(entry.key), cell(entry.value)});
  printRows(rows);
}

void Output::table(const Array& rows) const {
  if (_json) {
    print(jsonOf(rows));
    return;
  }
  std::vector<std::string> keys;
  for (const Value& row : rows) {
    if (row.dictionary() == nullptr) continue;
    for (const auto& entry : *row.dictionary())
      if (std::find(keys.begin(), keys.end(), entry.key) == keys.end()) keys.push_back(entry.key);
  }
  std::vector<std::vector<std::string>> lines;
  lines.emplace_back();
  for (const std::string& key : keys) lines.back().push_back(printable(key));
  for (const Value& row : rows) {
    if (row.dictionary() == nullptr) continue;
    lines.emplace_back();
    for (const std::string& key : keys) lines.back().push_back(cell((*row.dictionary())[key]));
  }
  printRows(lines);
}

int Output::answer(bool yes) const {
  print(_json ? (yes ? "true" : "false") : (yes ? "yes" : "no"));
  return yes ? kDone : kServiceSaidNo;
}

void Output::line(const std::string& text) const {
  if (!_json) print(printable(text));
}

int Output::about(const char* what, const std::string& text, const std::string& shown) const {
  print(_json ? jsonOf(Dictionary{{what, text}}) : shown);
  return kDone;
}

bool Output::flush() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return true;
  std::fprintf(stderr, "tallowctl: cannot write to standard output\n");
  return false;
}

int Output::failure(const Error& error) const {
  const bool unreachable = error.domain == AccountServiceClient::kErrorDomain &&
                           error.code == AccountServiceClient::kUnreachable;
  const char* advice = adviceFor(error);
  if (_json) {
    print(jsonOf(
        Dictionary{{"error", Dictionary{{"domain", error.domain},
                                        {"code", error.code},
                                        {"message", error.localizedDescription()},
                                        {"advice", *advice != '\0' ? Value(advice) : Value()},
                                        {"userInfo", error.userInfo}}}}));
  } else {
    std::fprintf(stderr, "tallowctl: %s\n", printable(error.localizedDescription()).c_str());
    if (*advice != '\0') std::fprintf(stderr, "%s\n", advice);
  }
  return unreachable ? kNotReachable : kServiceSaidNo;
}

int Output::wrongUsage(const std::string& text) const {
  if (_json) {
    print(jsonOf(
        Dictionary{{"error", Dictionary{{"domain", "usage"}, {"code", 2}, {"message", text}}}}));
  } else {
    std::fprintf(stderr, "tallowctl: %s\n", printable(text).c_str());
    std::fprintf(stderr, "Try tallowctl --help.\n");
  }
  return kWrongUsage;
}

}  // namespace tallow::ctl
