#pragma once

#include <memory>

#include "devstore/Endpoint.h"
#include "devstore/PushDevices.h"

namespace tallow::devstore {

// The store's side of push registration: takes tokens and media types from devices, says what is
// enabled. Media types for a device whose token it has not seen are refused with -2; asked for such
// a device it answers nothing. No settings of its own.
class PushEndpoint final : public Endpoint {
 public:
  enum class Page { RegisterSuccess, RegisterMediaTypes, EnabledMediaTypes };

  PushEndpoint(Page page, std::shared_ptr<PushDevices> devices);

  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;

 private:
  Dictionary registerSuccess(const Dictionary& body);
  Dictionary registerMediaTypes(const Dictionary& body);
  Dictionary enabledMediaTypes(const ReceivedRequest& request);

  const Page _page;
  const std::shared_ptr<PushDevices> _devices;
};

}  // namespace tallow::devstore
