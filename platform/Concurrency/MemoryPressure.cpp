#include "platform/Concurrency/MemoryPressure.h"

#include <fcntl.h>
#include <link.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Base/Base64.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr const char* kWholeMachine = "/proc/pressure/memory";
// A tenth of two seconds in which something waited for memory. Shorter windows are for root.
constexpr std::string_view kTrigger("some 200000 2000000\0", 20);
// A file name of the loader begins so, after its last slash.
constexpr std::string_view kSeldomEntered[] = {"libcrypto.so",  "libssl.so",   "libcurl.so",
                                               "libicui18n.so", "libicuuc.so", "libpsl.so",
                                               "libnghttp2.so"};

bool isSeldomEntered(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  return std::any_of(std::begin(kSeldomEntered), std::end(kSeldomEntered),
                     [&](std::string_view each) { return name.starts_with(each); });
}

// Only what was mapped read-only: there the file has every byte. What relocations have written to
// lies in segments that were writable.
int leaveOutPages(dl_phdr_info* library, std::size_t /*size*/, void* /*unused*/) {
  if (!isSeldomEntered(library->dlpi_name)) return 0;
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  for (int i = 0; i < library->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = library->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
    const std::uintptr_t start = library->dlpi_addr + segment.p_vaddr;
    const std::uintptr_t first = (start + page - 1) / page * page;
    const std::uintptr_t end = (start + segment.p_filesz) / page * page;
    // Locked pages stay, as they are asked to.
    if (first < end) madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
  }
  return 0;
}

std::string_view textOf(const char* variable) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? text : "";
}

}  // namespace

MemoryPressure::MemoryPressure() {
  const std::string path(textOf("MEMORY_PRESSURE_WATCH"));
  if (path == "/dev/null") return;
  // A kernel that tells none but the privileged is the usual thing, where nobody has asked.
  const int level = path.empty() ? 3 : 1;
  if (const auto why = path.empty() ? _open(kWholeMachine, kTrigger) : _openAsAsked(path))
    logLevel(level, "%@: cannot watch %@: %@", kClassName, path.empty() ? kWholeMachine : path,
             *why);
}

std::optional<std::string> MemoryPressure::_openAsAsked(const std::string& path) {
  const std::optional<Data> trigger = base64Decode(textOf("MEMORY_PRESSURE_WRITE"));
  if (!trigger) return "MEMORY_PRESSURE_WRITE is no base64";
  return _open(path, trigger->view());
}

// Why it could not be done.
std::optional<std::string> MemoryPressure::_open(const std::string& path,
                                                 std::string_view trigger) {
  const auto reason = [] { return std::generic_category().message(errno); };
  FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) return reason();
  if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) return "Neither a file nor a FIFO";
  if (write(file.get(), trigger.data(), trigger.size()) < 0) return reason();
  _isKernelFile = S_ISREG(status.st_mode);
  _file = std::move(file);
  return std::nullopt;
}

void MemoryPressure::watch(RunLoop& loop) {
  if (!_file) return;
  loop.onEvents(_file.get(), _isKernelFile ? EPOLLPRI : EPOLLIN, [this] {
    std::array<char, 512> told;
    while (!_isKernelFile && read(_file.get(), told.data(), told.size()) > 0) continue;
    logLevel(3, "%@: memory is short, giving back what can be spared", kClassName);
    giveBackMemory();
  });
}

void giveBackMemory() {
  malloc_trim(0);
  dl_iterate_phdr(leaveOutPages, nullptr);
}

}  // namespace tallow
