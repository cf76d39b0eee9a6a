#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/Base/Error.h"
#include "platform/Base/Result.h"
#include "platform/Base/Value.h"
#include "platform/Orv/OrvLibrary.h"
#include "platform/VendBase/HSStoreURLOperation.h"

namespace tallow {

// Stands for the absence of an account wherever this machine identifies itself.
inline constexpr std::uint64_t kAnonymousDSID = UINT64_MAX;

// What the two machine-identity exchanges have in common: how what the library made is posted, and
// how the store's answer is read. Callable from any thread.
namespace OrvExchange {

// A failure of the machine-identity library; code = its status.
Error libraryError(std::int32_t status);

// The bytes of data that may be missing: none then.
std::span<const std::uint8_t> bytesOf(const std::optional<Data>& data);

// Base64 of what the library returned; empty where it returned nothing.
Value base64Of(const OrvBuffer& buffer);

// How long an exchange may take, in whole: others wait for it.
inline constexpr double kTotalTimeoutSeconds = 20;
// How much of a synchronisation's state is kept; what is longer is no state.
inline constexpr std::size_t kLongestSyncState = 16u << 10;

// Where to post to; an error where the bag has no such URL, or one where anybody could answer.
Result<URL> secureURL(HSOperation& operation, const char* urlBagKey);

// The request that posts the body to the URL, to be answered with a property list. Orders in the
// answer are not carried out. It carries no machine identity and asks nobody to sign in: whoever
// would be asked for the one, or would need it for the other, waits for this request to end.
std::shared_ptr<HSStoreURLOperation> postOperation(
    const Dictionary& body, URL url, const std::shared_ptr<const HSStoreClient>& storeClient);

// The failure that the answer states, if it states one.
std::optional<Error> serverError(const Dictionary& answer);

// Base64 data under the key; nil where there is none.
std::optional<Data> decodedData(const Dictionary& answer, const char* key);

}  // namespace OrvExchange

}  // namespace tallow
