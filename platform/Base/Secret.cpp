#include "platform/Base/Secret.h"

#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace tallow {

// Whole pages: nothing else is kept from being dumped, and nothing is locked that is not a secret.
class Secret::Memory {
 public:
  explicit Memory(std::string_view text) : _length(text.size()) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    _mapped = (_length + page - 1) / page * page;
    void* const pages =
        mmap(nullptr, _mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
      std::fputs("Secret: there is no memory for a secret\n", stderr);
      std::abort();
    }
    // Both are the second line of defence; there may be too little memory that can be locked.
    madvise(pages, _mapped, MADV_DONTDUMP);
    mlock(pages, _mapped);
    _bytes = static_cast<char*>(pages);
    std::copy(text.begin(), text.end(), _bytes);
  }
  ~Memory() {
    wipe(_bytes, _mapped);
    munmap(_bytes, _mapped);
  }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  std::string_view view() const { return {_bytes, _length}; }

 private:
  const std::size_t _length;
  std::size_t _mapped = 0;
  char* _bytes = nullptr;
};

Secret::Secret(std::string_view text) {
  if (!text.empty()) _memory = std::make_shared<const Memory>(text);
}

std::string_view Secret::view() const {
  return _memory ? _memory->view() : std::string_view();
}

void Secret::wipe(void* bytes, std::size_t length) {
  explicit_bzero(bytes, length);
}

void forbidCoreDumps() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_DUMPABLE, 0);  // the limit alone does not bind programs that dumps are piped to
}

}  // namespace tallow
