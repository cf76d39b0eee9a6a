#include "src/OrvController.h"

namespace tallow {

OrvController& OrvController::sharedController() {
  static auto& controller = *new OrvController;
  return controller;
}

Dictionary OrvController::httpRequestHeaders() {
  return {};
}

std::optional<Dictionary> OrvController::httpRequestHeadersForDSID(
    std::optional<std::uint64_t> dsID) {
  return dsID ? std::optional(Dictionary()) : std::nullopt;
}

void OrvController::processHTTPHeaders(const Dictionary&,
                                       const std::shared_ptr<const HSStoreClient>&) {}

}  // namespace tallow
