#include "devstore/RedirectEndpoint.h"

#include <charconv>
#include <string>

namespace tallow::devstore {

namespace {

constexpr int kFound = 302;
constexpr unsigned kMostRedirects = 1000;

Answer nextOfChain(const ReceivedRequest& request) {
  unsigned left = 0;
  if (const std::string* text = request.parameter("left")) {
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), left);
    if (error != std::errc() || end != text->data() + text->size() || left > kMostRedirects) {
      return Answer::text(400, "left: must be a whole number up to 1000\n");
    }
  }
  if (left == 0) return Answer::redirect(kFound, "/store/page");
  return Answer::redirect(kFound, "/redirect/chain?left=" + std::to_string(left - 1));
}

}  // namespace

Answer RedirectEndpoint::answer(const ReceivedRequest& request, const Settings*,
                                PropertyList::Format) {
  if (request.path == "/redirect/loop") return Answer::redirect(kFound, "/redirect/loop");
  if (request.path == "/redirect/chain") return nextOfChain(request);
  const std::string* to = request.parameter("to");
  if (to == nullptr || !Answer::canBeHeaderText(*to)) {
    return Answer::text(400, "/redirect?to=URL\n");
  }
  return Answer::redirect(kFound, *to);
}

}  // namespace tallow::devstore
