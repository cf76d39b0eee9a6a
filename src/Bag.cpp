#include "src/Bag.h"

#include <cerrno>
#include <exception>
#include <string>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/RegularExpression.h"
#include "platform/Certificates/HSCertificate.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/RecentFailures.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/BagLoadOperation.h"
#include "src/BagPolicy.h"

namespace tallow {

namespace {

// The persisted file: { "version": 1, "archive": { the response's entries, and these two } }.
constexpr std::int64_t kPersistedFormatVersion = 1;
constexpr std::size_t kArchiveDepth = 1;  // what the response is inside of
constexpr const char* kVersionKey = "version";
constexpr const char* kArchiveKey = "archive";
constexpr const char* kValidUntilDateKey = "validUntilDate";
constexpr const char* kBootstrapURLKey = "bootstrapURL";

constexpr std::size_t kMostRememberedURLs = 64;
constexpr std::size_t kMostRememberedURLBytes = 1024;

Error notSigned(const char* message) {
  return HSError(kHSErrorBagNotSigned, std::nullopt, message);
}

const char* persistedFileName(std::uint64_t bagType) {
  switch (bagType) {
    case kBagTypeProduction:
      return "ProductionBag";
    case kBagTypeSandbox:
      return "SandboxBag";
    default:
      return "UnknownBag";
  }
}

// What an unsigned response over https is taken to hold: a "bag" that is a dictionary or the bytes
// of one, else a "urlBag", else the response as a whole. Older servers still answer each of these
// ways, and the last one means that any dictionary fetched over https is a bag: TLS alone vouches
// for it.
Dictionary unsignedBagDictionary(const Dictionary& response) {
  Value candidate = response["bag"];
  if (const Data* bytes = candidate.data()) {
    const Result<Value> decoded = PropertyList::decode(*bytes);
    candidate = decoded ? *decoded : Value();
  }
  if (candidate.dictionary() != nullptr) return *candidate.dictionary();
  candidate = response["urlBag"];
  return candidate.dictionary() != nullptr ? *candidate.dictionary() : response;
}

}  // namespace

std::shared_ptr<Bag> Bag::initWithBagType(std::uint64_t bagType,
                                          std::shared_ptr<const HSStoreClient> storeClient,
                                          std::weak_ptr<BagDelegate> delegate) {
  std::shared_ptr<Bag> bag(new Bag(bagType, std::move(storeClient), std::move(delegate)));
  bag->_loadFromPersistedStore();
  return bag;
}

Bag::Bag(std::uint64_t bagType, std::shared_ptr<const HSStoreClient> storeClient,
         std::weak_ptr<BagDelegate> delegate)
    : _bagType(bagType),
      _storeClient(std::move(storeClient)),
      _delegate(std::move(delegate)),
      _serialAccessQueue("Bag Serial Access Queue"),
      _validationQueue("Bag Validation Queue") {}

void Bag::loadBagIfNeededAndPerformBlock(const LoadBlock& block, HSServiceClientInterface*) {
  _serialAccessQueue.sync([&] {
    if (isValid()) {
      block(*this, isValid(), /*alreadyValid=*/true, _dictionary, std::nullopt);
    } else {
      loadOnAccessQueue(block);
    }
  });
}

void Bag::loadOnAccessQueue(const LoadBlock& block) {
  invalidate();
  const auto operation = std::make_shared<BagLoadOperation>(shared_from_this(), _storeClient);
  std::optional<Error> acceptanceError;
  std::optional<Dictionary> newContents;
  operation->setBagLoadOutputHandler([&](BagLoadOperation&, const URL& bootstrapURL,
                                         const Dictionary& response, const Date& validUntil) {
    std::optional<Error> error;
    auto accepted =
        bagDictionaryWithServerResponseDictionary(response, validUntil, bootstrapURL, &error);
    if (accepted) {
      logLevel(1, "%@: Successfully updated bag type %li from %@ valid until %@", kClassName,
               _bagType, bootstrapURL, validUntil);
      newContents = accepted;
      _dictionary = std::move(accepted);
    } else {
      acceptanceError = std::move(error);
    }
  });
  std::optional<Error> runError;
  const bool ran = operation->runSyncReturningError(&runError);

  const bool updated = ran && _dictionary;
  const std::optional<Error> updateError =
      operation->error() ? operation->error() : acceptanceError;
  // Before anybody hears of it: the ping may bring a cookie or a storefront, which make the bag
  // invalid again, and whoever has loaded it is to have it.
  const bool valid = isValid();
  if (updateError && !newContents)
    RecentFailures::shared().note(*updateError, _storeClient->identifier.value_or(""));
  WorkerPool::shared().async([bag = shared_from_this(), updated, updateError, newContents] {
    if (const auto delegate = bag->delegate())
      delegate->bagDidUpdateWithSuccess(bag, updated, updateError, newContents);
  });
  block(*this, valid, /*alreadyValid=*/false, _dictionary, runError);
}

Dictionary Bag::validDictionary() {
  Dictionary result;
  loadBagIfNeededAndPerformBlock(
      [&result](Bag&, bool valid, bool, const auto& dictionary, const auto&) {
        if (valid && dictionary) result = *dictionary;
      });
  return result;
}

Value Bag::valueForKey(std::string_view key) {
  return validDictionary()[key];
}

std::optional<URL> Bag::urlForKey(std::string_view key) {
  const Value value = valueForKey(key);
  const std::string* text = value.string();
  return text != nullptr ? URL::parse(*text) : std::nullopt;
}

std::optional<Dictionary> Bag::dictionary() {
  std::optional<Dictionary> result;
  loadBagIfNeededAndPerformBlock(
      [&result](Bag&, bool, bool, const auto& dictionary, const auto&) { result = dictionary; });
  return result;
}

std::optional<Dictionary> Bag::dictionaryIfValidNow() const {
  std::optional<Dictionary> result;
  _serialAccessQueue.trySync([&] {
    if (isValid()) result = _dictionary;
  });
  return result;
}

bool Bag::isValid() const {
  return _validationQueue.sync([this] {
    return _validUntilDate && _validUntilDate->secondsSince(Clock::shared().now()) > 0.0;
  });
}

void Bag::invalidate() {
  _validationQueue.sync([this] { _validUntilDate.reset(); });
}

std::optional<Date> Bag::validUntilDate() const {
  return _validationQueue.sync([this] { return _validUntilDate; });
}

std::optional<Bag::Source> Bag::source() const {
  return _validationQueue.sync([&] { return _source; });
}

void Bag::setValidUntilDate(std::optional<Date> date) {
  _validationQueue.sync([&] { _validUntilDate = date; });
}

bool Bag::regexWithKey(std::string_view key, std::string_view matchesString) {
  const Value pattern = valueForKey(key);
  if (pattern.isNil()) {
    logLevel(1, "%@: Regex patten with key %@ was not present in the bag", kClassName, key);
    return false;
  }
  // A value that is no string is no pattern either: it takes the road of one that does not compile.
  const auto expression =
      pattern.string() != nullptr
          ? RegularExpression::compile(*pattern.string(), {.caseInsensitive = true})
          : Result<RegularExpression>(makeError(kClassName, -1, "The value is not a string"));
  if (!expression) {
    logLevel(1, "%@: Failed to parse regex from bag with key %@ - %@ (%@)", kClassName, key,
             pattern, expression.error());
    return false;
  }
  return expression->firstMatchIn(matchesString) == RegularExpression::Match::Found;
}

bool Bag::urlIsTrusted(const std::optional<URL>& url) {
  if (!url) return false;
  // A "data" URL carries its own contents: no bag is asked for.
  return BagPolicy::urlIsTrusted(url->scheme() == "data" ? Dictionary() : validDictionary(), *url);
}

bool Bag::urlRequiresAMD(const std::optional<URL>& url) {
  return url && BagPolicy::urlRequiresAMD(validDictionary(), *url);
}

bool Bag::urlRequiresMD(const std::optional<URL>& url) {
  return url && BagPolicy::urlRequiresMD(validDictionary(), *url);
}

bool Bag::sendGUIDWithURL(const std::optional<URL>& url) {
  if (!url) return false;
  const Dictionary contents = validDictionary();
  const bool sends = BagPolicy::sendGUIDWithURL(contents, *url);
  if (url->absoluteString().size() > kMostRememberedURLBytes) return sends;
  const std::lock_guard guard(_guidAnswersLock);
  if (!_guidAnswers.contents.isSameAs(contents) || _guidAnswers.byURL.size() >= kMostRememberedURLs)
    _guidAnswers = {contents, {}};
  _guidAnswers.byURL.emplace(url->absoluteString(), sends);
  return sends;
}

std::optional<bool> Bag::sendGUIDWithURLIfAtHand(const URL& url) const {
  const std::optional<Dictionary> contents = dictionaryIfValidNow();
  if (!contents) return std::nullopt;
  const std::lock_guard guard(_guidAnswersLock);
  if (!_guidAnswers.contents.isSameAs(*contents)) return std::nullopt;
  const auto found = _guidAnswers.byURL.find(url.absoluteString());
  return found != _guidAnswers.byURL.end() ? std::optional(found->second) : std::nullopt;
}

// Accepting responses, and the copy on disk

std::optional<Dictionary> Bag::bagDictionaryWithServerResponseDictionary(
    const Dictionary& response, const std::optional<Date>& validUntilDate,
    const std::optional<URL>& bootstrapURL, std::optional<Error>* error) {
  const bool cameOverHTTPS = bootstrapURL && bootstrapURL->scheme() == "https";
  std::optional<Error> signedFormError;
  const Value signedForm =
      _signedBagDictionaryFromServerResponseDictionary(response, &signedFormError);

  std::optional<Dictionary> result;
  if (const Dictionary* dictionary = signedForm.dictionary()) {
    result = *dictionary;
  } else if (cameOverHTTPS) {
    result = unsignedBagDictionary(response);
  }
  if (!signedForm.isNil() && signedForm.dictionary() == nullptr) {
    // Signed, but no dictionary: a bag of any other shape has nothing to look up.
    signedFormError = HSError(kHSErrorInvalidPropertyList, std::nullopt,
                              "The signed URL bag is not a dictionary");
  }

  if (result) {
    VBLogManager::sharedManager().logPropertyList(3, *result, "Bag");
    _validationQueue.sync([&] {
      _source = Source{bootstrapURL};
      if (_validUntilDate && _validUntilDate == validUntilDate) return;
      _validUntilDate = validUntilDate;
      _writePersistedStoreToDiskWithDictionary(response, bootstrapURL);
    });
  } else {
    logLevel(1, "%@: Failed to load bag update from dictionary %@", kClassName, response);
  }
  if (error != nullptr) *error = signedFormError;
  return result;
}

Value Bag::_signedBagDictionaryFromServerResponseDictionary(
    const Dictionary& response, std::optional<Error>* returningError) const {
  const auto fail = [&](Error error) {
    if (returningError != nullptr) *returningError = std::move(error);
    return Value();
  };
  const Array* certs = response["certs"].array();
  const Data* signature = response["signature"].data();
  const Data* bag = response["bag"].data();
  if (certs == nullptr || signature == nullptr || bag == nullptr) {
    logLevel(1, "%@: Insufficient data to parse URL bag", kClassName);
    return fail(notSigned("The response lacks certificates, signature or bag"));
  }
  HSCertificate certificate;
  certificate.setCertificateData(*certs);
  if (!certificate.isValid()) {
    logLevel(1, "%@: URL bag data invalid (May be unsigned)", kClassName);
    return fail(notSigned(certificate.reason().c_str()));
  }
  if (!certificate.checkData(*bag, *signature)) {
    logLevel(1, "%@: URL bag data invalid (May be signed incorrectly)", kClassName);
    return fail(notSigned(certificate.reason().c_str()));
  }
  const Result<Value> decoded = PropertyList::decode(*bag);
  if (!decoded || decoded->isNil()) {
    logLevel(1, "%@: Could not unserialize the URL bag", kClassName);
    return fail(HSError(kHSErrorInvalidPropertyList, std::nullopt,
                        "The signed URL bag is not a property list"));
  }
  return *decoded;
}

std::optional<std::filesystem::path> Bag::_persistedStoreURL() const {
  const std::optional<std::string>& identifier = _storeClient->identifier;
  if (!identifier || !isSafePathComponent(*identifier)) return std::nullopt;
  const std::filesystem::path directory = Directories::shared().cacheHome / *identifier;
  if (!ensureDirectoryExists(directory))
    logLevel(1, "%@: Failed to create cache directory: %@", kClassName, directory.native());
  return directory / persistedFileName(_bagType);
}

// Runs on the validation queue: one writer a bag.
void Bag::_writePersistedStoreToDiskWithDictionary(const Dictionary& response,
                                                   const std::optional<URL>& bootstrapURL) {
  if (!_validUntilDate || _leavesPersistedStoreAlone) return;
  const std::optional<std::filesystem::path> location = _persistedStoreURL();
  if (!location) return;
  const std::filesystem::path& path = *location;
  try {
    const Value address = bootstrapURL ? Value(bootstrapURL->absoluteString()) : Value();
    const Dictionary archive =
        response.setting(kValidUntilDateKey, *_validUntilDate).setting(kBootstrapURLKey, address);
    const Data contents = PropertyList::encode(
        Dictionary{{kVersionKey, kPersistedFormatVersion}, {kArchiveKey, archive}},
        PropertyList::Format::Binary);
    // What would not be read again must not take the place of what would.
    auto error = PropertyList::depth(response) + kArchiveDepth > PropertyList::kMaxDepth ||
                         contents.length() > PropertyList::kMaxBytes
                     ? std::optional(makeError(kClassName, EFBIG, "It is too large"))
                     : writeFileAtomically(path, contents);
    if (error) {
      logLevel(1, "%@: Error writing persisted bag to %@ - %@", kClassName, path.native(),
               error->localizedDescription());
      return;
    }
  } catch (const std::exception& exception) {
    logLevel(1, "%@: Exception writing persisted bag to %@ - %@", kClassName, path.native(),
             exception.what());
  }
  // Said also after an exception: this line marks the end of the attempt, not its success, and log
  // readers pair it with the start of the next load.
  logLevel(3, "%@: Updated persisted bag at %@", kClassName, path.native());
}

void Bag::_loadFromPersistedStore() {
  const std::optional<std::filesystem::path> location = _persistedStoreURL();
  if (!location) return;
  const std::filesystem::path& path = *location;
  const Result<Data> contents = readFile(path);
  if (!contents) {
    // None is no fault.
    if (contents.error().code != ENOENT)
      logLevel(1, "%@: Error loading persisted bag type %li - %@", kClassName, _bagType,
               contents.error());
    return;
  }

  const Result<Value> decoded = PropertyList::decode(*contents);
  const Dictionary* file = decoded ? decoded->dictionary() : nullptr;
  if (file != nullptr && (*file)[kVersionKey].signedValue() > kPersistedFormatVersion) {
    logLevel(1, "%@: %@ was written by a newer version and is left alone", kClassName,
             path.native());
    _leavesPersistedStoreAlone = true;
    return;
  }
  const Dictionary* archive = file != nullptr ? (*file)[kArchiveKey].dictionary() : nullptr;
  const Dictionary response = archive != nullptr ? *archive : Dictionary();
  const Date* date = response[kValidUntilDateKey].date();
  const std::optional<Date> validUntil = date != nullptr ? std::optional(*date) : std::nullopt;
  const std::string* address = response[kBootstrapURLKey].string();
  const std::optional<URL> bootstrapURL = address != nullptr ? URL::parse(*address) : std::nullopt;

  const Date now = Clock::shared().now();
  // Equal to now still counts here, though a bag is only valid before its date. A missing date
  // passes too, and fails below.
  if (validUntil && *validUntil < now) {
    logLevel(1, "%@: Discarded invalid persisted store for bag type %li (was valid until %@)",
             kClassName, _bagType, *validUntil);
    return;
  }
  setValidUntilDate(validUntil);
  std::optional<Error> error;
  auto accepted =
      bagDictionaryWithServerResponseDictionary(response, validUntil, bootstrapURL, &error);
  if (accepted) {
    logLevel(1, "%@: Loaded bag type %li from persisted store valid until %@ (%.2f seconds)",
             kClassName, _bagType, validUntil, validUntil ? validUntil->secondsSince(now) : 0.0);
    _validationQueue.sync([&] { _source->isPersistedCopy = true; });
    _dictionary = std::move(accepted);
    return;
  }
  setValidUntilDate(std::nullopt);
  logLevel(1, "%@: Error loading persisted bag type %li - %@", kClassName, _bagType, error);
  if (archive != nullptr) return;
  if (const auto aside = setAsideAsCorrupt(path))
    logLevel(1, "%@: %@ is damaged and was set aside as %@", kClassName, path.native(),
             aside->native());
}

std::string description(const Bag& bag) {
  return format("<Bag type %lu of %@>", bag.bagType(),
                bag.storeClient() ? bag.storeClient()->identifier : std::nullopt);
}

}  // namespace tallow
