#include "platform/Certificates/CryptoContext.h"

#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>

namespace tallow {

void* certificateCryptoContext() {
  static OSSL_LIB_CTX* const context = [] {
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
