#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tallow {

// On whose behalf a thread works: the store client and the operation that it has called. Set where
// a call comes in, and carried along by what hands work to other threads (SerialQueue, WorkerPool,
// HSOperationQueue), so that what is logged far away still tells whose call it was. A value.
struct Activity {
  std::string client;     // identifier; empty for a process that is no client
  std::string operation;  // the bus member

  // Null on a thread that works for nobody.
  static std::shared_ptr<const Activity> current();
  // The block, to be run on whatever thread under the activity of this one.
  static std::function<void()> carriedTo(std::function<void()> block);

  // What the thread works on while it lives. Scopes nest. Costs two words unless somebody asks.
  class Scope {
   public:
    // The texts outlive the scope.
    Scope(std::string_view client, std::string_view operation);
    explicit Scope(std::shared_ptr<const Activity> activity);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    friend struct Activity;
    std::string_view _client, _operation;
    std::shared_ptr<const Activity> _activity;  // made when it is asked for
    bool _isNobody;
    Scope* const _outer;
  };
};

}  // namespace tallow
