#pragma once

#include <memory>
#include <optional>

#include "platform/Base/Result.h"
#include "platform/HTTP/HTTPTransport.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

// Turns a response body into the operation's output.
class HSDataProvider {
 public:
  virtual ~HSDataProvider() = default;
  // Nil value: no output. The error ends the operation without success.
  virtual Result<Value> outputForResponse(const HTTPResponse& response) = 0;
};

// Decodes the body as a property list. With protocol processing on it also acts on the store
// protocol found in it.
class HSPropertyListProvider final : public HSDataProvider {
 public:
  static std::shared_ptr<HSPropertyListProvider> providerWithStoreClient(
      std::shared_ptr<const HSStoreClient> storeClient);

  void setShouldProcessProtocol(bool should) { _shouldProcessProtocol = should; }
  bool shouldProcessProtocol() const { return _shouldProcessProtocol; }

  Result<Value> outputForResponse(const HTTPResponse& response) override;
  // What the last response decoded to.
  const Value& output() const { return _output; }

 private:
  std::shared_ptr<const HSStoreClient> _storeClient;
  bool _shouldProcessProtocol = true;
  Value _output;
};

}  // namespace tallow
