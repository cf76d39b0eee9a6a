#include "platform/HTTP/CurlExchange.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/ASCII.h"
#include "platform/Base/Format.h"
#include "platform/HTTP/CurlLibrary.h"

namespace tallow {
namespace {

constexpr std::size_t kMaxHeaderLines = 1000;
constexpr std::size_t kMaxHeaderBytes = 256u << 10;

long milliseconds(double seconds) {
  const double rounded = std::ceil(seconds * 1000);
  constexpr double kMost = std::numeric_limits<int>::max();
  return rounded >= 1 ? static_cast<long>(std::min(rounded, kMost)) : 1;
}

bool hasHeader(const HTTPHeaderList& headers, const char* name) {
  return std::any_of(headers.begin(), headers.end(), [name](const auto& header) {
    return ascii::equalIgnoringCase(header.first, name);
  });
}

// The library's parse of the URL's text, with the same settings as URL::parse, and with the very
// host that the URL has told everyone: it never looks at another name than the one that was judged.
CurlURLPointer parsedURL(const URL& url) {
  CurlURLPointer parsed(curl().url());
  const bool isIPv6 = url.host().find(':') != std::string::npos;
  const std::string host = isIPv6 ? "[" + url.host() + "]" : url.host();
  if (!parsed ||
      curl().urlSet(parsed.get(), CURLUPART_URL, url.absoluteString().c_str(),
                    CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK ||
      curl().urlSet(parsed.get(), CURLUPART_HOST, host.c_str(), 0) != CURLUE_OK)
    parsed.reset();
  return parsed;
}

// A received value without white space around it and without line breaks inside (RFC 9110
// section 5.5), which the library leaves in some malformed ones.
std::string cleanValue(std::string_view value) {
  constexpr std::string_view kSpace = " \t\r\n";
  const std::size_t first = value.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  std::string clean(value.substr(first, value.find_last_not_of(kSpace) - first + 1));
  std::replace_if(
      clean.begin(), clean.end(), [](char c) { return c == '\r' || c == '\n'; }, ' ');
  return clean;
}

HTTPTransport::ErrorCode errorCodeFor(CURLcode result) {
  switch (result) {
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return HTTPTransport::kBadRequest;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PROXY:
      return HTTPTransport::kCannotConnect;
    case CURLE_OPERATION_TIMEDOUT:
      return HTTPTransport::kTimedOut;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_USE_SSL_FAILED:
      return HTTPTransport::kTLS;
    case CURLE_FILESIZE_EXCEEDED:
      return HTTPTransport::kBodyTooLarge;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return HTTPTransport::kConnectionLost;
    default:
      return HTTPTransport::kOther;
  }
}

const char* sentenceFor(HTTPTransport::ErrorCode code) {
  switch (code) {
    case HTTPTransport::kCannotConnect:
      return "Could not connect to";
    case HTTPTransport::kTimedOut:
      return "No answer in time from";
    case HTTPTransport::kTLS:
      return "Could not make a secure connection to";
    case HTTPTransport::kBodyTooLarge:
      return "Too large an answer from";
    case HTTPTransport::kConnectionLost:
      return "The connection was lost to";
    default:
      return "Could not load from";
  }
}

}  // namespace

// The library's side of the exchange, and what has come in so far.
struct CurlExchange::Transfer {
  CurlEasyPointer handle;
  CurlURLPointer url;
  CurlListPointer headers;
  char errorText[CURL_ERROR_SIZE] = "";
  std::size_t maxBodyBytes = 0;
  std::vector<std::uint8_t> body;
  bool bodyTooLarge = false;
  std::size_t headerLines = 0;
  std::size_t headerBytes = 0;
  bool headersTooLarge = false;

  bool append(std::string_view header) {
    curl_slist* longer = curl().listAppend(headers.get(), std::string(header).c_str());
    if (longer == nullptr) return false;
    (void)headers.release();
    headers.reset(longer);
    return true;
  }

  bool takeBody(std::span<const char> bytes) {
    bodyTooLarge = bytes.size() > maxBodyBytes - body.size();
    if (bodyTooLarge) return false;
    if (body.empty()) reserveStatedLength();
    body.insert(body.end(), bytes.begin(), bytes.end());
    return true;
  }

  void reserveStatedLength() {
    curl_off_t stated = 0;
    if (curl().easyGetInfo(handle.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &stated) == CURLE_OK &&
        stated > 0)
      body.reserve(std::min(static_cast<std::size_t>(stated), maxBodyBytes));
  }

  bool takeHeaderLine(std::size_t length) {
    headerBytes += length;
    headersTooLarge = ++headerLines > kMaxHeaderLines || headerBytes > kMaxHeaderBytes;
    return !headersTooLarge;
  }

  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* transfer) {
    const bool taken = static_cast<Transfer*>(transfer)->takeBody({bytes, size * count});
    return taken ? size * count : 0;
  }

  static std::size_t onHeader(char* /*line*/, std::size_t size, std::size_t count, void* transfer) {
    return static_cast<Transfer*>(transfer)->takeHeaderLine(size * count) ? size * count : 0;
  }
};

CurlExchange::CurlExchange(HTTPRequest request, std::optional<Error> refusal,
                           HTTPTransport::Completion completion, std::function<void()> wake)
    : _request(std::move(request)),
      _refusal(std::move(refusal)),
      _completion(std::move(completion)),
      _wake(std::move(wake)) {}

CurlExchange::~CurlExchange() = default;

void CurlExchange::cancel() {
  if (!_cancelled.exchange(true)) _wake();
}

void* CurlExchange::handle() const {
  return _transfer ? _transfer->handle.get() : nullptr;
}

std::optional<Error> CurlExchange::prepare(const TrustedCertificates& trusted) {
  if (_refusal) return _refusal;
  _transfer = std::make_unique<Transfer>();
  _transfer->maxBodyBytes = _request.maxBodyBytes;
  _transfer->url = parsedURL(_request.url);
  if (!_transfer->url)
    return makeError(HTTPTransport::kErrorDomain, HTTPTransport::kBadRequest,
                     "The URL is malformed.");
  _transfer->handle.reset(curl().easyInit());
  if (!_transfer->handle || !setOptions(trusted) || !setMethodAndBody() || !setHeaders())
    return errorFor(CURLE_OUT_OF_MEMORY);
  return std::nullopt;
}

bool CurlExchange::setOptions(const TrustedCertificates& trusted) {
  Transfer& transfer = *_transfer;
  bool accepted = true;
  const auto set = [&](CURLoption option, auto value) {
    accepted = accepted && curl().easySetOption(transfer.handle.get(), option, value) == CURLE_OK;
  };
  const auto pathOrNone = [](const std::string& path) {
    return path.empty() ? nullptr : path.c_str();
  };
  set(CURLOPT_NOSIGNAL, 1L);
  // A name server that does not answer holds up only who asked it, not this thread.
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_ERRORBUFFER, &transfer.errorText[0]);
  set(CURLOPT_CURLU, transfer.url.get());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  set(CURLOPT_ACCEPT_ENCODING, "gzip");
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(CURLOPT_CAINFO, pathOrNone(trusted.file));
  set(CURLOPT_CAPATH, pathOrNone(trusted.folder));
  set(CURLOPT_CONNECTTIMEOUT_MS, milliseconds(_request.connectTimeoutSeconds));
  set(CURLOPT_TIMEOUT_MS, milliseconds(_request.totalTimeoutSeconds));
  set(CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
  set(CURLOPT_HEADERDATA, &transfer);
  set(CURLOPT_WRITEFUNCTION, &Transfer::onBody);
  set(CURLOPT_WRITEDATA, &transfer);
  return accepted;
}

bool CurlExchange::setMethodAndBody() {
  CURL* handle = _transfer->handle.get();
  const std::string& method = _request.method;
  if (method == "HEAD") return curl().easySetOption(handle, CURLOPT_NOBODY, 1L) == CURLE_OK;
  // A stated length beyond the limit needs no reading.
  bool accepted = curl().easySetOption(handle, CURLOPT_MAXFILESIZE_LARGE,
                                       static_cast<curl_off_t>(_request.maxBodyBytes)) == CURLE_OK;
  if (!_request.body.empty() || method == "POST" || method == "PUT") {
    const char* bytes = _request.body.empty() ? "" : _request.body.view().data();
    accepted = accepted &&
               curl().easySetOption(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                                    static_cast<curl_off_t>(_request.body.length())) == CURLE_OK &&
               curl().easySetOption(handle, CURLOPT_POSTFIELDS, bytes) == CURLE_OK;
  }
  return accepted &&
         curl().easySetOption(handle, CURLOPT_CUSTOMREQUEST, method.c_str()) == CURLE_OK;
}

bool CurlExchange::setHeaders() {
  bool accepted = true;
  const auto add = [&](std::string_view header) {
    accepted = accepted && _transfer->append(header);
  };
  for (const auto& [name, value] : _request.headers) {
    // To the library "Name:" alone means to leave the header out, "Name;" to send it empty.
    const bool isBlank = value.find_first_not_of(' ') == std::string::npos;
    add(isBlank ? name + ";" : name + ": " + value);
  }
  if (_request.bypassCaches) {
    if (!hasHeader(_request.headers, "Cache-Control")) add("Cache-Control: no-cache");
    if (!hasHeader(_request.headers, "Pragma")) add("Pragma: no-cache");
  }
  // What the library would add of its own accord to a body.
  if (!hasHeader(_request.headers, "Content-Type")) add("Content-Type:");
  if (!hasHeader(_request.headers, "Expect")) add("Expect:");
  return accepted && curl().easySetOption(_transfer->handle.get(), CURLOPT_HTTPHEADER,
                                          _transfer->headers.get()) == CURLE_OK;
}

void CurlExchange::finish(int transferResult) {
  Result<HTTPResponse> result = takeResult(transferResult);
  complete(std::move(result));
}

void CurlExchange::finish(Error error) {
  complete(std::move(error));
}

Error CurlExchange::cancellation() {
  return makeError(HTTPTransport::kErrorDomain, HTTPTransport::kCancelled,
                   "The request was cancelled.");
}

Result<HTTPResponse> CurlExchange::takeResult(int transferResult) {
  if (transferResult != CURLE_OK) return errorFor(transferResult);
  CURL* handle = _transfer->handle.get();
  HTTPResponse response(_request.url);
  long status = 0;
  curl().easyGetInfo(handle, CURLINFO_RESPONSE_CODE, &status);
  response.statusCode = static_cast<int>(status);
  // The header lines of the last response alone: no interim responses, no trailers.
  constexpr int kLastResponse = -1;
  curl_header* header = nullptr;
  while ((header = curl().easyNextHeader(handle, CURLH_HEADER, kLastResponse, header)) != nullptr)
    response.headers.emplace_back(header->name, cleanValue(header->value));
  response.body = Data(std::move(_transfer->body));
  return response;
}

Error CurlExchange::errorFor(int transferResult) const {
  const auto result = static_cast<CURLcode>(transferResult);
  HTTPTransport::ErrorCode code = errorCodeFor(result);
  std::string detail = _transfer && _transfer->errorText[0] != '\0' ? _transfer->errorText
                                                                    : curl().easyErrorText(result);
  if (_transfer && _transfer->bodyTooLarge) {
    code = HTTPTransport::kBodyTooLarge;
    detail = format("more than %lu bytes", _request.maxBodyBytes);
  } else if (_transfer && _transfer->headersTooLarge) {
    code = HTTPTransport::kOther;
    detail = "too many header lines";
  }
  return makeError(HTTPTransport::kErrorDomain, code,
                   format("%s %s: %s", sentenceFor(code), _request.url.host(), detail));
}

void CurlExchange::complete(Result<HTTPResponse> result) {
  _transfer.reset();
  _hasEnded = true;
  const HTTPTransport::Completion completion = std::exchange(_completion, nullptr);
  if (completion) completion(std::move(result));
}

}  // namespace tallow
