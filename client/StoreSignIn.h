#pragma once

#include <cstdint>
#include <string>

#include "client/TransactionAgent.h"
#include "platform/Base/URL.h"
#include "platform/Base/Value.h"

namespace tallow {

// One attempt to sign somebody in for a client: the exchange with the store, and the handing in of
// its answer. The errors are those of HSSignInOperation, which does the same inside the service, of
// the client and of the transport. Owned by the agent; its thread only.
class StoreSignIn {
 public:
  StoreSignIn(AccountServiceClient& service, HSAuthenticationContext context)
      : _service(service), _context(std::move(context)) {}

  // The DSID of who has signed in.
  Result<std::uint64_t> signInWithCredentials(const TransactionAgent::Credentials& credentials);

 private:
  Result<URL> _address();
  Result<Dictionary> _answerOfStore(const URL& address,
                                    const TransactionAgent::Credentials& credentials);

  AccountServiceClient& _service;
  const HSAuthenticationContext _context;
};

}  // namespace tallow
