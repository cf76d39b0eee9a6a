#include "devstore/PushEndpoint.h"

#include <utility>

namespace tallow::devstore {

namespace {

constexpr int kUnknownDevice = -2;

Dictionary refusal(const char* why) {
  return {{"failureType", 5002}, {"customerMessage", why}};
}

Dictionary dictionaryIn(const Data& body) {
  const Result<Value> list = PropertyList::decode(body);
  const Dictionary* const entries = list ? list->dictionary() : nullptr;
  return entries == nullptr ? Dictionary() : *entries;
}

}  // namespace

PushEndpoint::PushEndpoint(Page page, std::shared_ptr<PushDevices> devices)
    : _page(page), _devices(std::move(devices)) {}

Answer PushEndpoint::answer(const ReceivedRequest& request, const Settings*,
                            PropertyList::Format format) {
  switch (_page) {
    case Page::RegisterSuccess:
      return Answer::propertyList(registerSuccess(dictionaryIn(request.body)), format);
    case Page::RegisterMediaTypes:
      return Answer::propertyList(registerMediaTypes(dictionaryIn(request.body)), format);
    case Page::EnabledMediaTypes:
      return Answer::propertyList(enabledMediaTypes(request), format);
  }
  return Answer::text(500, "no such page\n");
}

Dictionary PushEndpoint::registerSuccess(const Dictionary& body) {
  const std::string* const guid = body["guid"].string();
  if (guid == nullptr) return refusal("No device is named.");
  if (body["token"].data() == nullptr) return refusal("There is no token.");
  _devices->announce(*guid);
  return {{"status", 0}};
}

Dictionary PushEndpoint::registerMediaTypes(const Dictionary& body) {
  const std::string* const guid = body["guid"].string();
  if (guid == nullptr) return refusal("No device is named.");
  const Array* const types = body["media-types"].array();
  const bool isKnown = _devices->setMediaTypes(*guid, types == nullptr ? Array() : *types);
  return {{"status", isKnown ? 0 : kUnknownDevice}};
}

Dictionary PushEndpoint::enabledMediaTypes(const ReceivedRequest& request) {
  const std::string* const guid = request.parameter("guid");
  const auto types = guid == nullptr ? std::nullopt : _devices->mediaTypes(*guid);
  return types ? Dictionary{{"status", 0}, {"enabled-media-kinds", *types}} : Dictionary();
}

}  // namespace tallow::devstore
