#pragma once

#include <chrono>
#include <concepts>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

namespace tallow {

// One answer that a thread waits for, of an operation that answers through a callback. The wait
// ends with the answer, with abandon(), or when the last copy of the callback is gone without
// having been called: nobody waits for an answer that cannot come any more.
//
// Copies share the answer. Made and waited for by one thread; the callback and abandon() may be
// called from any. Only the first answer counts.
template <class T>
class HSPendingReply {
 public:
  HSPendingReply() : _cell(std::make_shared<Cell>()) {}

  // What to hand to the operation that answers. To be called once.
  std::function<void(T)> callback() const {
    return [answer = std::make_shared<Answer>(_cell)](T value) {
      answer->cell->finish(std::move(value));
    };
  }
  // The same for an operation that answers with nothing but that it is done.
  std::function<void()> doneCallback() const requires std::same_as<T, std::monostate> {
    return [answer = std::make_shared<Answer>(_cell)] { answer->cell->finish(T()); };
  }

  void abandon() const { _cell->finish(std::nullopt); }

  // The answer; nullopt when there will be none or it did not come within `seconds`.
  std::optional<T> wait(std::optional<double> seconds = std::nullopt) const {
    std::unique_lock lock(_cell->lock);
    const auto isFinished = [&] { return _cell->finished; };
    if (!seconds) {
      _cell->changed.wait(lock, isFinished);
    } else {
      _cell->changed.wait_for(lock, std::chrono::duration<double>(*seconds), isFinished);
    }
    return std::exchange(_cell->value, std::nullopt);
  }

 private:
  struct Cell {
    void finish(std::optional<T> answer) {
      {
        const std::lock_guard guard(lock);
        if (finished) return;
        finished = true;
        value = std::move(answer);
      }
      changed.notify_all();
    }
    std::mutex lock;
    std::condition_variable changed;
    bool finished = false;
    std::optional<T> value;
  };
  // What the copies of one callback share; its end is the end of all hope.
  struct Answer {
    explicit Answer(std::shared_ptr<Cell> to) : cell(std::move(to)) {}
    ~Answer() { cell->finish(std::nullopt); }
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;
    std::shared_ptr<Cell> cell;
  };

  std::shared_ptr<Cell> _cell;
};

}  // namespace tallow
