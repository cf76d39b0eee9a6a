#pragma once

namespace tallow {

// The context that certificate checks fetch their algorithms from (the library's OSSL_LIB_CTX): one
// of their own, so that a verdict never depends on what the machine's library configuration file
// says or on who used the library first, and so that the file need not be read to answer a first
// request. Made on first use, lives for the process. Callable from any thread.
void* certificateCryptoContext();

}  // namespace tallow
