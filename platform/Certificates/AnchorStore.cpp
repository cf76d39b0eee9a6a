#include "platform/Certificates/AnchorStore.h"

#include <dirent.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string_view>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Certificates/CryptoContext.h"
#include "platform/Certificates/OpenSSLPointers.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

constexpr std::string_view kExtension = ".pem";
constexpr std::size_t kMaxFiles = 256;
constexpr std::size_t kMaxFileBytes = 1u << 20;
constexpr double kSecondsBetweenTries = 1;

using DirectoryPointer = std::unique_ptr<DIR, int (*)(DIR*)>;

// The certificates of a PEM text; none when something in it does not decode.
std::vector<X509Pointer> certificatesIn(const Data& pem) {
  const BIOPointer bio(BIO_new_mem_buf(pem.bytes(), static_cast<int>(pem.length())));
  if (!bio) return {};
  std::vector<X509Pointer> found;
  for (bool hasEnded = false; !hasEnded;) {
    X509* certificate =
        X509_new_ex(static_cast<OSSL_LIB_CTX*>(certificateCryptoContext()), nullptr);
    if (certificate == nullptr) return {};
    // The reader leaves the empty certificate alone when the text has ended, and frees and clears
    // it when the text is damaged.
    const bool read = PEM_read_bio_X509(bio.get(), &certificate, nullptr, nullptr) != nullptr;
    X509Pointer owned(certificate);
    if (!read && ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) return {};
    hasEnded = !read;
    if (read) found.push_back(std::move(owned));
  }
  return found;
}

// Adds every certificate of a PEM text to `store`. False when something in it does not decode.
bool addCertificates(const Data& pem, X509_STORE& store, std::size_t& count) {
  const std::vector<X509Pointer> found = certificatesIn(pem);
  for (const X509Pointer& each : found) {
    if (X509_STORE_add_cert(&store, each.get()) != 1) return false;
    ++count;
  }
  return !found.empty();
}

Date dateOf(const ASN1_TIME* time) {
  std::tm parts = {};
  ASN1_TIME_to_tm(time, &parts);
  return Date{static_cast<double>(timegm(&parts))};
}

AnchorStore::Certificate described(const std::filesystem::path& file, const X509& certificate) {
  char subject[512];
  X509_NAME_oneline(X509_get_subject_name(&certificate), subject, sizeof(subject));
  return {file, subject, dateOf(X509_get0_notBefore(&certificate)),
          dateOf(X509_get0_notAfter(&certificate)), ""};
}

}  // namespace

AnchorStore& AnchorStore::shared() {
  return SharedInstance<AnchorStore>::get([] { return std::make_unique<AnchorStore>(); });
}

AnchorStore::Anchors AnchorStore::current() {
  bool isWhole = true;
  Files files = scan(isWhole);
  const double now = Clock::shared().monotonicSeconds();
  const std::lock_guard<std::mutex> guard(_lock);
  const bool isFirst = _anchors.store == nullptr;
  // What was read before counts until all of it can be seen again.
  if (!isFirst && !isWhole) return _anchors;
  if (isFirst || files != _files || (_readAgainAt && now >= *_readAgainAt)) {
    isWhole = true;
    _anchors = load(files, isWhole);
    _files = std::move(files);
    _readAgainAt = isWhole ? std::nullopt : std::optional(now + kSecondsBetweenTries);
  }
  return _anchors;
}

AnchorStore::Files AnchorStore::scan(bool& isWhole) {
  Files files;
  for (const std::filesystem::path& base : Directories::shared().systemConfigDirs()) {
    const std::filesystem::path folder = base / "anchors";
    const DirectoryPointer directory(opendir(folder.c_str()), &closedir);
    if (!directory) {
      isWhole = isWhole && !mayPass(errno);
      continue;
    }
    while (const dirent* entry = readdir(directory.get())) {
      const std::string_view name = entry->d_name;
      struct stat status = {};
      if (!name.ends_with(kExtension) || name.starts_with('.') ||
          fstatat(dirfd(directory.get()), entry->d_name, &status, 0) != 0)
        continue;
      files.emplace_back(folder / name, FileStamp::of(status));
    }
  }
  std::sort(files.begin(), files.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  return files;
}

AnchorStore::Anchors AnchorStore::load(const Files& files, bool& isWhole) {
  const std::shared_ptr<X509_STORE> store(X509_STORE_new(), &X509_STORE_free);
  Anchors anchors{store, 0};
  if (!store) return anchors;
  ERR_set_mark();
  if (files.size() > kMaxFiles)
    logLevel(1, "%@: Reading only %lu of %lu trust anchor files", AnchorStore::kClassName,
             kMaxFiles, files.size());
  for (std::size_t i = 0; i < std::min(files.size(), kMaxFiles); ++i) {
    const std::filesystem::path& path = files[i].first;
    const Result<Data> pem = readLinkedFile(path, kMaxFileBytes);
    if (!pem) {
      isWhole = isWhole && !mayPass(pem.error());
      logLevel(1, "%@: Cannot read trust anchors from %@ - %@", AnchorStore::kClassName,
               path.string(), pem.error());
    } else if (!addCertificates(*pem, *store, anchors.count)) {
      logLevel(1, "%@: Trust anchor file %@ is damaged or holds no certificate",
               AnchorStore::kClassName, path.string());
    }
  }
  ERR_pop_to_mark();
  return anchors;
}

std::vector<AnchorStore::Certificate> AnchorStore::installed() {
  std::vector<Certificate> result;
  ERR_set_mark();
  bool isWhole = true;
  for (const auto& [path, stamp] : scan(isWhole)) {
    const Result<Data> pem = readLinkedFile(path, kMaxFileBytes);
    const auto found = pem ? certificatesIn(*pem) : std::vector<X509Pointer>();
    for (const X509Pointer& each : found) result.push_back(described(path, *each));
    if (found.empty())
      result.push_back(
          {path,
           "",
           {},
           {},
           pem ? "damaged, or no certificate in it" : pem.error().localizedDescription()});
  }
  ERR_pop_to_mark();
  return result;
}

}  // namespace tallow
