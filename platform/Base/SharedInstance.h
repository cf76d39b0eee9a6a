#pragma once

#include <memory>
#include <utility>

namespace tallow {

// The process's one instance of a platform facility, replaceable by tests.
//
// A facility T that the whole process shares declares `static T& shared();` and implements it with
// SharedInstance<T>::get([] { return std::make_unique<RealT>(); }). The real instance is made on
// first use and lives for the process. A test replaces it, before other threads use it, with
// ScopedShared<T>. Where everybody has a facility of their own, what is shared is its factory.
template <class T>
class SharedInstance {
 public:
  template <class Factory>
  static T& get(Factory factory) {
    if (_override != nullptr) return *_override;
    static std::unique_ptr<T>& instance = *new std::unique_ptr<T>(factory());
    return *instance;
  }
  static T* exchange(T* replacement) { return std::exchange(_override, replacement); }

 private:
  inline static T* _override = nullptr;
};

// Replaces T::shared() by `replacement` for the lifetime of this object (tests only).
template <class T>
class ScopedShared {
 public:
  explicit ScopedShared(T& replacement) : _previous(SharedInstance<T>::exchange(&replacement)) {}
  ~ScopedShared() { SharedInstance<T>::exchange(_previous); }
  ScopedShared(const ScopedShared&) = delete;
  ScopedShared& operator=(const ScopedShared&) = delete;

 private:
  T* _previous;
};

}  // namespace tallow
