#include "platform/HTTP/CurlLibrary.h"

#include <openssl/conf.h>
#include <openssl/crypto.h>

#include "platform/Base/LazyLibrary.h"

namespace tallow {

namespace {

// Every function, or none.
bool findAll(CurlLibrary& curl) {
  const LazyLibrary library("libcurl.so.4");
  return library.find(curl.globalInit, "curl_global_init") &&
         library.find(curl.versionInfo, "curl_version_info") &&
         library.find(curl.easyInit, "curl_easy_init") &&
         library.find(curl.easyCleanup, "curl_easy_cleanup") &&
         library.find(curl.easySetOption, "curl_easy_setopt") &&
         library.find(curl.easyGetInfo, "curl_easy_getinfo") &&
         library.find(curl.easyNextHeader, "curl_easy_nextheader") &&
         library.find(curl.easyErrorText, "curl_easy_strerror") &&
         library.find(curl.multiInit, "curl_multi_init") &&
         library.find(curl.multiCleanup, "curl_multi_cleanup") &&
         library.find(curl.multiSetOption, "curl_multi_setopt") &&
         library.find(curl.multiAddHandle, "curl_multi_add_handle") &&
         library.find(curl.multiRemoveHandle, "curl_multi_remove_handle") &&
         library.find(curl.multiPerform, "curl_multi_perform") &&
         library.find(curl.multiInfoRead, "curl_multi_info_read") &&
         library.find(curl.multiPoll, "curl_multi_poll") &&
         library.find(curl.multiWakeUp, "curl_multi_wakeup") &&
         library.find(curl.listAppend, "curl_slist_append") &&
         library.find(curl.listFree, "curl_slist_free_all") && library.find(curl.url, "curl_url") &&
         library.find(curl.urlCleanup, "curl_url_cleanup") &&
         library.find(curl.urlSet, "curl_url_set");
}

const CurlLibrary* load() {
  static CurlLibrary library;
  if (!findAll(library)) return nullptr;
  // The library must not take its tables apart in exit() while the I/O thread still uses them, so
  // it learns before anything else that it is not to.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  // What the machine's administrators demand of TLS: read here, since whoever needed the library
  // before may have told it to do without.
  CONF_modules_load_file_ex(nullptr, nullptr, nullptr,
                            CONF_MFLAGS_DEFAULT_SECTION | CONF_MFLAGS_IGNORE_MISSING_FILE);
  library.globalInit(CURL_GLOBAL_DEFAULT);
  return &library;
}

const CurlLibrary* shared() {
  static const CurlLibrary* const kLibrary = load();
  return kLibrary;
}

}  // namespace

bool CurlLibrary::isAvailable() {
  return shared() != nullptr;
}

const CurlLibrary& curl() {
  return *shared();
}

}  // namespace tallow
