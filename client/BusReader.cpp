#include "client/BusReader.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace tallow {

BusReader::BusReader(sdbus::IConnection& connection, std::function<void()> hasGone)
    : _connection(connection) {
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  _thread = std::thread([&connection, hasGone = std::move(hasGone)] {
    try {
      connection.enterEventLoop();
    } catch (const sdbus::Error&) {
      if (hasGone) hasGone();
    }
  });
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

BusReader::~BusReader() {
  _connection.leaveEventLoop();
  _thread.join();
}

}  // namespace tallow
