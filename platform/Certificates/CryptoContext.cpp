#include "platform/Certificates/CryptoContext.h"

#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>

namespace tallow {

void* certificateCryptoContext() {
  static OSSL_LIB_CTX* const context = [] {
    // The library's own context reads the file at the first object that it looks up, unless told
    // not to. Whoever uses that context (the HTTP library) asks for the file. Nothing is taken
    // apart when the process exits: other threads may still be at work with it.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr);
    OSSL_LIB_CTX* made = OSSL_LIB_CTX_new();
    if (made == nullptr) {
      std::fputs("tallow: no memory for the certificate library\n", stderr);
      std::abort();
    }
    return made;
  }();
  return context;
}

}  // namespace tallow
