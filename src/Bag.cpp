#include "src/Bag.h"

#include "platform/Base/Clock.h"
#include "platform/Base/RegularExpression.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/BagLoadOperation.h"
#include "src/BagPolicy.h"

namespace tallow {

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
  operation->setBagLoadOutputHandler([&](BagLoadOperation&, const URL& bootstrapURL,
                                         const Dictionary& response, const Date& validUntil) {
    std::optional<Error> error;
    auto accepted =
        bagDictionaryWithServerResponseDictionary(response, validUntil, bootstrapURL, &error);
    if (accepted) {
      logLevel(1, "%@: Successfully updated bag type %li from %@ valid until %@", kClassName,
               _bagType, bootstrapURL, validUntil);
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
  WorkerPool::shared().async([bag = shared_from_this(), updated, updateError] {
    if (const auto delegate = bag->delegate())
      delegate->bagDidUpdateWithSuccess(bag, updated, updateError);
  });
  block(*this, isValid(), /*alreadyValid=*/false, _dictionary, runError);
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
  return url && BagPolicy::sendGUIDWithURL(validDictionary(), *url);
}

std::string description(const Bag& bag) {
  return format("<Bag type %lu of %@>", bag.bagType(),
                bag.storeClient() ? bag.storeClient()->identifier : std::nullopt);
}

}  // namespace tallow
