#pragma once

#include <atomic>
#include <cstdint>

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Signs accounts in. Whatever the name, it belongs to an account: "42@example.com" and any other
// name that begins with a number to the one of that DSID, every other name to a DSID that is always
// the same for it. The password is kPassword unless another is staged. Every sign-in gets a token
// of its own.
class AuthenticateEndpoint final : public Endpoint {
 public:
  static constexpr const char* kPassword = "correct";

  std::shared_ptr<const Settings> readSettings(JSONReader& reader) const override;
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;

 private:
  std::atomic<std::uint64_t> _tokens{0};
};

}  // namespace tallow::devstore
