#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Base/Date.h"
#include "platform/Base/Error.h"
#include "platform/Base/URL.h"
#include "platform/Base/Value.h"
#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSServiceClientInterface.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

class Bag;

class BagDelegate {
 public:
  virtual ~BagDelegate() = default;
  // After every load attempt, on a worker thread, never on a queue of the bag: it may call back in.
  // `accepted`: the contents that this attempt has brought; nothing when they were refused.
  virtual void bagDidUpdateWithSuccess(const std::shared_ptr<Bag>& bag, bool success,
                                       const std::optional<Error>& error,
                                       const std::optional<Dictionary>& accepted) = 0;
};

// The URL bag of one store client and one bag type: the dictionary of service URLs and policy
// values that the store server publishes and from which every store request is built.
//
// The bag keeps itself current: every lookup first makes sure that the bag is valid and, if it is
// not, loads it from the server before answering, while the caller waits. A failed load leaves the
// old dictionary in place and the bag invalid; lookups then answer nil or false, and the next one
// tries again. There is no back-off.
//
// Owned by its BagController. Any thread may call; loads and reads run one at a time on the serial
// access queue, the validity date is guarded by the validation queue. A block given to
// loadBagIfNeededAndPerformBlock runs on the access queue and must not enter it again.
class Bag : public std::enable_shared_from_this<Bag> {
 public:
  static constexpr const char* kClassName = "Bag";

  // `alreadyValid`: no load was needed. `error`: that of the load's run.
  using LoadBlock = std::function<void(Bag& bag, bool valid, bool alreadyValid,
                                       const std::optional<Dictionary>& dictionary,
                                       const std::optional<Error>& error)>;

  // Reads the persisted copy, so that a bag that is still valid is usable at once. No network. The
  // delegate may be empty.
  static std::shared_ptr<Bag> initWithBagType(std::uint64_t bagType,
                                              std::shared_ptr<const HSStoreClient> storeClient,
                                              std::weak_ptr<BagDelegate> delegate);

  std::uint64_t bagType() const { return _bagType; }
  const std::shared_ptr<const HSStoreClient>& storeClient() const { return _storeClient; }
  std::shared_ptr<BagDelegate> delegate() const { return _delegate.lock(); }

  // Runs `block` with a valid bag, loading it first if needed. Returns after the block has run. The
  // interface on whose behalf the load happens is accepted for the caller's sake; the load itself
  // is the same for all.
  void loadBagIfNeededAndPerformBlock(const LoadBlock& block,
                                      HSServiceClientInterface* clientInterface = nullptr);

  Value valueForKey(std::string_view key);
  // A string under the key that parses as a URL.
  std::optional<URL> urlForKey(std::string_view key);
  // The contents when the bag is valid or could be made so, else an empty dictionary: one and the
  // same for all the questions that one answer is made of.
  Dictionary validDictionary();
  // The contents, valid or not: after a failed load the old ones.
  std::optional<Dictionary> dictionary();

  // Strictly in the future.
  bool isValid() const;
  void invalidate();
  std::optional<Date> validUntilDate() const;
  // Where the contents came from, for status reports; nil where there are none.
  struct Source {
    std::optional<URL> bootstrapURL;
    bool isPersistedCopy = false;  // read from disk at the start
  };
  std::optional<Source> source() const;
  void setValidUntilDate(std::optional<Date> date);

  // Whether the pattern under the key matches anywhere in the string, without regard to case.
  bool regexWithKey(std::string_view key, std::string_view matchesString);

  // BagPolicy.h says what each decides. A nil URL gives false. Each question makes at most one
  // load.
  bool urlIsTrusted(const std::optional<URL>& url);
  bool urlRequiresAMD(const std::optional<URL>& url);
  bool urlRequiresMD(const std::optional<URL>& url);
  bool sendGUIDWithURL(const std::optional<URL>& url);
  // The same, if the bag is valid and idle this very moment and has been asked for this URL since
  // it was loaded: matching its patterns may take long.
  std::optional<bool> sendGUIDWithURLIfAtHand(const URL& url) const;

  // The contents, if the bag is valid and idle this very moment; nullopt when an answer would mean
  // waiting or loading.
  std::optional<Dictionary> dictionaryIfValidNow() const;

  // Accepts a server's response: as a signed bag, or, when it came over "https", through a fixed
  // chain of unsigned forms. Sets the validity date and writes the persisted copy when the date
  // changed. *error receives the signed form's error also when an unsigned form succeeded: judge by
  // the result.
  std::optional<Dictionary> bagDictionaryWithServerResponseDictionary(
      const Dictionary& response, const std::optional<Date>& validUntilDate,
      const std::optional<URL>& bootstrapURL, std::optional<Error>* error);

 private:
  Bag(std::uint64_t bagType, std::shared_ptr<const HSStoreClient> storeClient,
      std::weak_ptr<BagDelegate> delegate);

  Value _signedBagDictionaryFromServerResponseDictionary(
      const Dictionary& response, std::optional<Error>* returningError) const;
  // Nil for a client whose identifier names no folder.
  std::optional<std::filesystem::path> _persistedStoreURL() const;
  void _writePersistedStoreToDiskWithDictionary(const Dictionary& response,
                                                const std::optional<URL>& bootstrapURL);
  void _loadFromPersistedStore();
  void loadOnAccessQueue(const LoadBlock& block);

  const std::uint64_t _bagType;
  const std::shared_ptr<const HSStoreClient> _storeClient;
  const std::weak_ptr<BagDelegate> _delegate;

  mutable SerialQueue _serialAccessQueue;
  std::optional<Dictionary> _dictionary;  // guarded by _serialAccessQueue

  // Set while the bag is made: the file is a newer version's, which may come back to it.
  bool _leavesPersistedStoreAlone = false;

  // The latest answers of sendGUIDWithURL, all out of the same contents.
  struct GUIDAnswers {
    Dictionary contents;
    std::map<std::string, bool, std::less<>> byURL;
  };
  mutable std::mutex _guidAnswersLock;
  GUIDAnswers _guidAnswers;  // under _guidAnswersLock

  mutable SerialQueue _validationQueue;
  std::optional<Date> _validUntilDate;  // guarded by _validationQueue
  std::optional<Source> _source;        // likewise
};

// "<Bag type 1 of IDENTIFIER>".
std::string description(const Bag& bag);

}  // namespace tallow
