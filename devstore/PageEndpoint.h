#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Answers every page of the store, "/store/page" and all others below "/store/": a property list
// that names the page, and two cookies, one of them with a comma in its expiry date. No settings of
// its own.
class PageEndpoint final : public Endpoint {
 public:
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;
};

}  // namespace tallow::devstore
