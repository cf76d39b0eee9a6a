#pragma once

#include <openssl/bio.h>
#include <openssl/x509.h>

#include <memory>

// Owners of what OpenSSL makes, each freed by the function that OpenSSL has for it.

namespace tallow {

template <auto Free>
struct Freeing {
  template <class T>
  void operator()(T* object) const {
    Free(object);
  }
};

using BIOPointer = std::unique_ptr<BIO, Freeing<BIO_free>>;
using X509Pointer = std::unique_ptr<X509, Freeing<X509_free>>;

}  // namespace tallow
