#include "devstore/Answer.h"

#include "platform/Base/ASCII.h"

namespace tallow::devstore {

Answer Answer::propertyList(const Value& value, PropertyList::Format format) {
  Answer answer;
  answer.contentType =
      format == PropertyList::Format::Binary ? "application/x-plist" : "text/xml; charset=utf-8";
  answer.body = PropertyList::encode(value, format);
  return answer;
}

Answer Answer::text(int status, std::string_view message) {
  Answer answer;
  answer.status = status;
  answer.body = Data(message);
  return answer;
}

Answer Answer::json(int status, std::string_view text) {
  Answer answer = Answer::text(status, text);
  answer.contentType = "application/json";
  return answer;
}

Answer Answer::redirect(int status, std::string_view location) {
  Answer answer = Answer::text(status, "");
  answer.setHeader("Location", location);
  return answer;
}

bool Answer::canBeHeaderText(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

void Answer::addHeader(std::string_view name, std::string_view value) {
  headers.emplace_back(name, value);
}

void Answer::setHeader(std::string_view name, std::string_view value) {
  removeHeader(name);
  addHeader(name, value);
}

void Answer::removeHeader(std::string_view name) {
  std::erase_if(headers,
                [&](const auto& header) { return ascii::equalIgnoringCase(header.first, name); });
}

}  // namespace tallow::devstore
