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

// Decodes the body as a property list; a body that is none (an empty one included) is the error
// kHSErrorInvalidPropertyList. Used by one operation, on its thread.
class HSPropertyListProvider final : public HSDataProvider {
 public:
  static std::shared_ptr<HSPropertyListProvider> providerWithStoreClient(
      std::shared_ptr<const HSStoreClient> storeClient);

  // Whether this request wants the store protocol in the answer acted on. The bag's requests do
  // not: what they fetch says who is to be trusted.
  void setShouldProcessProtocol(bool should) { _shouldProcessProtocol = should; }
  bool shouldProcessProtocol() const { return _shouldProcessProtocol; }
  // Of the store protocol: whether its dialogs are shown (unless set: no), and whether the download
  // service is told that something waits for it (unless set: yes).
  void setShouldProcessDialogs(bool should) { _shouldProcessDialogs = should; }
  void setShouldTriggerDownloads(bool should) { _shouldTriggerDownloads = should; }

  Result<Value> outputForResponse(const HTTPResponse& response) override;
  // What the last response decoded to.
  const Value& output() const { return _output; }

 private:
  std::shared_ptr<const HSStoreClient> _storeClient;
  bool _shouldProcessProtocol = true;
  bool _shouldProcessDialogs = false;
  bool _shouldTriggerDownloads = true;
  Value _output;
};

}  // namespace tallow
