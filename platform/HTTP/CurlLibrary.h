#pragma once

#include <curl/curl.h>

#include <memory>

namespace tallow {

// The functions of the HTTP library (libcurl) that the transport calls. The library is loaded with
// the first request: it brings two dozen others along, and a start that answers from what is on
// disk needs none of them.
struct CurlLibrary {
  decltype(&curl_global_init) globalInit = nullptr;
  decltype(&curl_version_info) versionInfo = nullptr;
  decltype(&curl_easy_init) easyInit = nullptr;
  decltype(&curl_easy_cleanup) easyCleanup = nullptr;
  decltype(&curl_easy_setopt) easySetOption = nullptr;
  decltype(&curl_easy_getinfo) easyGetInfo = nullptr;
  decltype(&curl_easy_nextheader) easyNextHeader = nullptr;
  decltype(&curl_easy_strerror) easyErrorText = nullptr;
  decltype(&curl_multi_init) multiInit = nullptr;
  decltype(&curl_multi_cleanup) multiCleanup = nullptr;
  decltype(&curl_multi_setopt) multiSetOption = nullptr;
  decltype(&curl_multi_add_handle) multiAddHandle = nullptr;
  decltype(&curl_multi_remove_handle) multiRemoveHandle = nullptr;
  decltype(&curl_multi_perform) multiPerform = nullptr;
  decltype(&curl_multi_info_read) multiInfoRead = nullptr;
  decltype(&curl_multi_poll) multiPoll = nullptr;
  decltype(&curl_multi_wakeup) multiWakeUp = nullptr;
  decltype(&curl_slist_append) listAppend = nullptr;
  decltype(&curl_slist_free_all) listFree = nullptr;
  decltype(&curl_url) url = nullptr;
  decltype(&curl_url_cleanup) urlCleanup = nullptr;
  decltype(&curl_url_set) urlSet = nullptr;

  // Loads and initialises it, once. False where it is missing; then no request can be sent.
  // Callable from any thread.
  static bool isAvailable();
};

// The library; only once CurlLibrary::isAvailable() has said so.
const CurlLibrary& curl();

// Handles of the library that free themselves.
template <auto CurlLibrary::*Free>
struct CurlDeleter {
  template <class Handle>
  void operator()(Handle* handle) const {
    (curl().*Free)(handle);
  }
};
using CurlEasyPointer = std::unique_ptr<CURL, CurlDeleter<&CurlLibrary::easyCleanup>>;
using CurlMultiPointer = std::unique_ptr<CURLM, CurlDeleter<&CurlLibrary::multiCleanup>>;
using CurlURLPointer = std::unique_ptr<CURLU, CurlDeleter<&CurlLibrary::urlCleanup>>;
using CurlListPointer = std::unique_ptr<curl_slist, CurlDeleter<&CurlLibrary::listFree>>;

}  // namespace tallow
