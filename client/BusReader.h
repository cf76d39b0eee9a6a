#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <thread>

namespace tallow {

// Reads a connection to the bus on a thread of its own, which takes no signals of the program. When
// the bus goes away the thread ends, after `hasGone`; that it may do at any time is no fault.
//
// A call on that connection from another thread is answered by this one. So whoever may be waiting
// for an answer has to be waited for before this is destroyed: afterwards none would come.
class BusReader {
 public:
  explicit BusReader(sdbus::IConnection& connection, std::function<void()> hasGone = nullptr);
  ~BusReader();
  BusReader(const BusReader&) = delete;
  BusReader& operator=(const BusReader&) = delete;

 private:
  sdbus::IConnection& _connection;
  std::thread _thread;
};

}  // namespace tallow
