#include "devstore/ConnectionQueue.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace tallow::devstore {

namespace {

namespace fs = std::filesystem;

std::vector<int> openDescriptors() {
  std::vector<int> descriptors;
  std::error_code error;
  for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    int descriptor = -1;
    std::from_chars(name.data(), name.data() + name.size(), descriptor);
    if (descriptor >= 0) descriptors.push_back(descriptor);
  }
  return descriptors;
}

// The local port of a connected socket.
std::optional<std::uint16_t> localPort(int descriptor) {
  sockaddr_storage address = {};
  socklen_t length = sizeof(address);
  if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return std::nullopt;
  }
  length = sizeof(address);
  if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return std::nullopt;
  }
  if (address.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
  }
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
  }
  return std::nullopt;
}

}  // namespace

void ConnectionQueue::shutdown() {
  // The library does not tell its connections' sockets, so they are found by their port, which no
  // other socket of the process has at its own end. The duplicate keeps a socket that another
  // thread closes in this moment from being taken for the next one of its number.
  for (const int descriptor : openDescriptors()) {
    const int duplicate = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) continue;
    if (localPort(duplicate) == _port) ::shutdown(duplicate, SHUT_RDWR);
    ::close(duplicate);
  }
  _pool.waitUntilIdle();
}

}  // namespace tallow::devstore
