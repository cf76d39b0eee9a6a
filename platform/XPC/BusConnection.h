#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/XPC/SDBus.h"

namespace tallow {

// One connection to a bus and the thread that reads it. Every handler of the connection's objects
// and proxies runs on that thread; so does what post() hands over. Messages may be sent from any
// thread. Whoever holds a message of the connection holds the connection too: shared ownership.
class BusConnection {
 public:
  static constexpr const char* kClassName = "BusConnection";  // in log lines

  enum class Bus { Session, System };

  // Connects; reads nothing before start().
  static Result<std::shared_ptr<BusConnection>> open(Bus bus);
  // Ends the thread. Not on that thread: stop() it first where its tasks may hold the last
  // reference.
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  sdbus::IConnection& connection() { return *_connection; }

  // Starts to read. `disconnected` is called on the reading thread, at most once, when the bus has
  // gone away; the thread then ends.
  void start(std::function<void()> disconnected);
  // Ends the reading thread and waits for it, and lets go of what was kept while it reads. Not on
  // that thread.
  void stop();
  // Runs `task` on the reading thread, between two messages. Any thread. What has not run when that
  // thread ends, and what comes later, is destroyed.
  void post(std::function<void()> task);
  // The same for what none of those concerns who are waiting for an answer: it runs when all that
  // has arrived is answered and the bus has had a moment to pass the answers on, or else after the
  // next message. Any thread; in order among themselves.
  void postAfterAnswers(std::function<void()> task);
  // Handles the messages that have arrived. On the reading thread, from a posted task.
  void readArrived();
  // Keeps a proxy whose call is not answered yet until it is released, or nothing is read any more:
  // calls that are outstanding then are given up on the thread that stops. On the reading thread.
  void keepWhileReading(std::shared_ptr<void> object);
  void release(const void* object) { _keptWhileReading.erase(object); }
  // Keeps an exported object until this connection goes, and so until its last message has gone:
  // the bus library looks at the object's method table even while it seals a late answer. After
  // stop().
  void keepUntilClosed(std::shared_ptr<void> object) { _kept.push_back(std::move(object)); }

 private:
  explicit BusConnection(std::unique_ptr<sdbus::IConnection> connection);
  void _read(const std::function<void()>& disconnected);
  void _readUntilIdle();
  using Tasks = std::vector<std::function<void()>>;
  void _add(std::function<void()> task, Tasks& to);
  bool _readOne();
  void _run(Tasks& waiting);
  enum class Wait { ForMessages, AMoment };
  void _wait(Wait how);
  void _wake() const;

  std::unique_ptr<sdbus::IConnection> _connection;
  std::vector<std::shared_ptr<void>> _kept;  // goes before the connection it is exported on
  std::map<const void*, std::shared_ptr<void>> _keptWhileReading;  // the reading thread's
  int _wakeUp = -1;                                                // eventfd
  std::atomic<bool> _stopping{false};
  std::atomic<bool> _hasPosted{false};
  std::atomic<std::size_t> _laterCount{0};
  std::mutex _mutex;
  Tasks _posted;
  Tasks _later;  // once all is answered
  bool _hasEnded = false;
  std::thread _thread;
  std::atomic<std::thread::id> _reader{};  // that thread, once it runs
};

}  // namespace tallow
