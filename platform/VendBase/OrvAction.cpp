#include "platform/VendBase/OrvAction.h"

#include "platform/Base/Base64.h"

namespace tallow {

OrvAction OrvAction::readFrom(const Dictionary& headers) {
  OrvAction read{headers["x-vantor-md-action"], headers["x-vantor-md-data"], false};
  if (read.action.isNil() && read.data.isNil())
    read = {headers["x-vantor-amd-action"], headers["x-vantor-amd-data"], true};
  return read;
}

std::optional<Data> OrvAction::decodedData() const {
  return data.string() == nullptr ? std::nullopt : base64Decode(*data.string());
}

}  // namespace tallow
