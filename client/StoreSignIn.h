#pragma once

#include <cstdint>
#include <string>

#include "client/TransactionAgent.h"
#include "platform/Base/URL.h"
#include "platform/Base/Value.h"
#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

// One attempt to sign somebody in for a client: the exchange with the store, and the handing in of
// its answer. The errors are those of HSSignInOperation, which does the same inside the service, of
// the client and of the transport. Owned by the agent; its thread only.
class StoreSignIn {
 public:
  // `service` acts as the client with the identifier.
  StoreSignIn(AccountServiceClient& service, std::string client, HSAuthenticationContext context)
      : _service(service), _client(std::move(client)), _context(std::move(context)) {}

  // The DSID of who has signed in.
  Result<std::uint64_t> signInWithCredentials(const TransactionAgent::Credentials& credentials);

 private:
  Result<URL> _address();
  Result<Dictionary> _answerOfStore(const URL& address,
                                    const TransactionAgent::Credentials& credentials);
  // What goes with every request of the client's to its store.
  Result<HTTPHeaderList> _standardHeaders(const std::string& url);
  // What every answer of its store may bring.
  std::optional<Error> _takeIn(const HTTPResponse& response, const std::string& url);

  AccountServiceClient& _service;
  const std::string _client;
  const HSAuthenticationContext _context;
};

}  // namespace tallow
