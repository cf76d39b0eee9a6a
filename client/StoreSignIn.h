#pragma once

#include <cstdint>
#include <string>

#include "client/TransactionAgent.h"
#include "platform/Base/URL.h"
#include "platform/HTTP/HTTPTransport.h"
#include "platform/VendBase/HSRequestHop.h"

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
  Result<HTTPResponse> _exchange(const URL& address,
                                 const TransactionAgent::Credentials& credentials);
  // What goes with every request of the client's to its store, by HSStoreURLOperation's rules.
  std::optional<Error> _addStandardHeaders(HSRequestHop& hop);
  // What every answer of its store may bring.
  std::optional<Error> _takeIn(const HTTPResponse& response);

  AccountServiceClient& _service;
  const std::string _client;
  const HSAuthenticationContext _context;
};

}  // namespace tallow
