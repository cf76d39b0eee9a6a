#include "devstore/AnswerSettings.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "devstore/Bytes.h"
#include "devstore/JSONReader.h"
#include "devstore/JSONValue.h"

namespace tallow::devstore {

namespace {

using nlohmann::json;

constexpr std::int64_t kMostBytes = 64 << 20;
constexpr std::int64_t kMostDepth = 4'000'000;
constexpr std::int64_t kMostDelay = 600'000;
constexpr std::int64_t kMostTimes = 1'000'000;

constexpr std::string_view kXMLHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
constexpr std::string_view kXMLFooter = "\n</plist>\n";

bool isHeaderName(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(),
                                      [](char c) { return c > ' ' && c < 0x7f && c != ':'; });
}

std::optional<std::size_t> readSize(JSONReader& reader, std::string_view key,
                                    std::int64_t least = 0, std::int64_t most = kMostBytes) {
  const std::optional<std::int64_t> number = reader.integer(key, least, most);
  return number ? std::optional(static_cast<std::size_t>(*number)) : std::nullopt;
}

std::string repeated(std::string_view text, std::size_t count) {
  std::string out;
  out.reserve(text.size() * count);
  while (count-- > 0) out.append(text);
  return out;
}

// An XML property list of `depth` arrays, each inside the one before. Written as text because no
// encoder would nest that deep.
Data nestedList(std::size_t depth) {
  std::string text(kXMLHeader);
  text += repeated("<array>", depth);
  text += repeated("</array>", depth);
  text += kXMLFooter;
  return Data(text);
}

// An XML property list of exactly `bytes` bytes, or of the fewest possible.
Data sizedList(std::size_t bytes) {
  constexpr std::string_view kBefore = "<dict><key>padding</key><string>";
  constexpr std::string_view kAfter = "</string></dict>";
  const std::size_t frame = kXMLHeader.size() + kBefore.size() + kAfter.size() + kXMLFooter.size();
  std::string text(kXMLHeader);
  text.reserve(std::max(bytes, frame));
  text += kBefore;
  text.append(bytes > frame ? bytes - frame : 0, 'x');
  text += kAfter;
  text += kXMLFooter;
  return Data(text);
}

}  // namespace

AnswerSettings AnswerSettings::read(JSONReader& reader) {
  AnswerSettings settings;
  settings._times = reader.integer("times", 1, kMostTimes);
  if (const auto status = reader.integer("status", 200, 599)) {
    settings._status = static_cast<int>(*status);
  }
  settings._format =
      reader
          .choice<PropertyList::Format>("format", {{"xml", PropertyList::Format::XML},
                                                   {"binary", PropertyList::Format::Binary}})
          .value_or(PropertyList::Format::XML);
  settings.readHeaders(reader);
  settings.readBody(reader);
  settings.readDelivery(reader);
  settings._identityOrder = IdentityOrder::read(reader);
  return settings;
}

void AnswerSettings::readHeaders(JSONReader& reader) {
  if (const json* headers = reader.member("headers")) {
    JSONReader inner(*headers, reader.place("headers"));
    for (const auto& [name, value] : headers->items()) {
      if (!isHeaderName(name)) inner.fail(name, "is not a header's name");
      const json* member = inner.member(name);
      if (member == nullptr) continue;
      if (member->is_null()) {
        _headers.emplace_back(name, std::nullopt);
        continue;
      }
      for (std::string& text : inner.strings(name).value_or(std::vector<std::string>())) {
        if (!Answer::canBeHeaderText(text)) inner.fail(name, "must not contain line breaks or NUL");
        _headers.emplace_back(name, std::move(text));
      }
    }
    reader.adopt(inner.complaint());
  }

  _cookies = reader.strings("setCookie");
  for (const std::string& cookie : _cookies.value_or(std::vector<std::string>())) {
    if (!Answer::canBeHeaderText(cookie))
      reader.fail("setCookie", "must not contain line breaks or NUL");
  }

  const auto header = [&](std::string_view key, const char* name) {
    std::optional<std::string> text = reader.string(key);
    if (text && !Answer::canBeHeaderText(*text))
      reader.fail(key, "must not contain line breaks or NUL");
    if (text && name != nullptr) _headers.emplace_back(name, text);
    return text;
  };
  header("storefront", "X-Set-Vantor-Store-Front");
  _contentType = header("contentType", nullptr);
  _redirectTo = header("redirectTo", nullptr);

  if (const json* maxAge = reader.member("maxAge")) {
    if (maxAge->is_null()) {
      _headers.emplace_back("Cache-Control", std::nullopt);
    } else if (maxAge->is_number() ||
               (maxAge->is_string() &&
                Answer::canBeHeaderText(maxAge->get_ref<const std::string&>()))) {
      const std::string text = maxAge->is_string() ? maxAge->get<std::string>() : maxAge->dump();
      _headers.emplace_back("Cache-Control", "max-age=" + text);
    } else {
      reader.fail("maxAge", "must be a number, a string or null");
    }
  }
}

void AnswerSettings::readBody(JSONReader& reader) {
  const auto set = [&](std::string_view key, Body body) {
    if (!std::holds_alternative<std::monostate>(_body)) {
      reader.fail(key, "only one of body, text, plist, nest and size can be staged");
    }
    _body = std::move(body);
  };
  if (auto bytes = reader.base64("body")) set("body", std::move(*bytes));
  if (const auto text = reader.string("text")) set("text", Data(*text));
  if (const json* list = reader.member("plist")) {
    if (std::optional<Value> value = valueFromJSON(*list)) {
      set("plist", std::move(*value));
    } else {
      reader.fail("plist",
                  "is no property list: null, a bad \"$data\" or \"$date\", or nested too deep");
    }
  }
  if (const auto depth = readSize(reader, "nest", 1, kMostDepth)) set("nest", Nested{*depth});
  if (const auto bytes = readSize(reader, "size", 1)) set("size", Sized{*bytes});
  _flipBodyByte = readSize(reader, "flipBodyByte");
}

void AnswerSettings::readDelivery(JSONReader& reader) {
  if (const auto delay = reader.integer("delayMs", 0, kMostDelay)) {
    _delay = std::chrono::milliseconds(*delay);
  }
  _hang = reader.boolean("hang").value_or(false);
  _truncateAt = readSize(reader, "truncateAt");
  _stallAt = readSize(reader, "stallAt");
}

Answer AnswerSettings::appliedTo(Answer answer) const {
  if (_redirectTo) {
    answer.status = 302;
    answer.setHeader("Location", *_redirectTo);
  }
  if (_status) answer.status = *_status;
  applyHeaders(answer);
  applyBody(answer);
  answer.delay = _delay;
  answer.hang = _hang;
  answer.truncateAt = _truncateAt;
  answer.stallAt = _stallAt;
  return answer;
}

void AnswerSettings::applyHeaders(Answer& answer) const {
  for (const auto& [name, value] : _headers) answer.removeHeader(name);
  for (const auto& [name, value] : _headers) {
    if (value) answer.addHeader(name, *value);
  }
  if (!_cookies) return;
  answer.removeHeader("Set-Cookie");
  for (const std::string& cookie : *_cookies) answer.addHeader("Set-Cookie", cookie);
}

void AnswerSettings::applyBody(Answer& answer) const {
  if (const Data* bytes = std::get_if<Data>(&_body)) {
    answer.body = *bytes;
  } else if (const Value* value = std::get_if<Value>(&_body)) {
    const Answer encoded = Answer::propertyList(*value, _format);
    answer.body = encoded.body;
    answer.contentType = encoded.contentType;
  } else if (const Nested* nested = std::get_if<Nested>(&_body)) {
    answer.body = nestedList(nested->depth);
  } else if (const Sized* sized = std::get_if<Sized>(&_body)) {
    answer.body = sizedList(sized->bytes);
  }
  if (_contentType) answer.contentType = *_contentType;
  if (_flipBodyByte) answer.body = withFlippedBit(answer.body, *_flipBodyByte);
}

}  // namespace tallow::devstore
