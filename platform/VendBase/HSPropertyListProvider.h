#pragma once

#include <memory>
#include <optional>

#include "platform/Base/Result.h"
#include "platform/HTTP/HTTPTransport.h"
#include "platform/VendBase/HSStoreClient.h"
#include "platform/VendBase/HSStoreProtocol.h"

namespace tallow {

class HSStoreURLOperation;

// Turns a response body into the operation's output.
class HSDataProvider {
 public:
  virtual ~HSDataProvider() = default;
  // Nil value: no output. The error ends the operation without success.
  virtual Result<Value> outputForResponse(const HTTPResponse& response) = 0;
  // Does what the output asks for beside being one; may take minutes. The error ends the operation
  // without success, and nobody hears of the output.
  virtual std::optional<Error> actOnOutput(HSStoreURLOperation& /*operation*/) {
    return std::nullopt;
  }
  // Whether a person may be asked something on behalf of this request.
  virtual bool allowsQuestions() const { return true; }
};

// Decodes the body as a property list; a body that is none (an empty one included) is the error
// kHSErrorInvalidPropertyList. Then does what the store protocol in it asks for, as far as the
// switches allow (docs/store-requests.md). Used by one operation, on its thread.
class HSPropertyListProvider final : public HSDataProvider {
 public:
  static std::shared_ptr<HSPropertyListProvider> providerWithStoreClient(
      std::shared_ptr<const HSStoreClient> storeClient);

  // Whether this request wants the store protocol in the answer acted on. The bag's requests do
  // not: what they fetch says who is to be trusted.
  void setShouldProcessProtocol(bool should) { _shouldProcessProtocol = should; }
  // Of the store protocol: whether its dialogs are shown (unless set: no; set to no, nobody is
  // asked to sign in either), and whether the download service is told that something waits for it
  // (unless set: yes).
  void setShouldProcessDialogs(bool should) { _shouldProcessDialogs = should; }
  void setShouldTriggerDownloads(bool should) { _shouldTriggerDownloads = should; }

  Result<Value> outputForResponse(const HTTPResponse& response) override;
  std::optional<Error> actOnOutput(HSStoreURLOperation& operation) override;
  bool allowsQuestions() const override { return _shouldProcessDialogs.value_or(true); }

  // What the last response decoded to.
  const Value& output() const { return _output; }
  // Whether it brought a dialog that was shown, and that a person did more with than close it.
  bool didProcessDialog() const { return _outcome.didProcessDialog; }
  // Who signed in there.
  std::optional<std::uint64_t> authenticatedAccountDSID() const {
    return _outcome.authenticatedAccountDSID;
  }

 private:
  std::shared_ptr<const HSStoreClient> _storeClient;
  bool _shouldProcessProtocol = true;
  std::optional<bool> _shouldProcessDialogs;
  bool _shouldTriggerDownloads = true;
  Value _output;
  HSStoreProtocol::Outcome _outcome;
};

}  // namespace tallow
