#pragma once

namespace tallow {

// A shared library that is loaded when something first needs it, and stays. For libraries that most
// runs never use: each one costs every start its mapping and its relocations.
//
// Whether the sandbox lets it be found and mapped is the sandbox profile's business (read access to
// the system's library folders).
class LazyLibrary {
 public:
  // `fileName` as the loader looks it up ("libcurl.so.4"). Loads at once.
  explicit LazyLibrary(const char* fileName);

  // Sets `function` to the library's symbol; false, and null, when it has none.
  template <class Function>
  bool find(Function*& function, const char* symbol) const {
    function = reinterpret_cast<Function*>(_symbol(symbol));
    return function != nullptr;
  }

 private:
  void* _symbol(const char* name) const;
  void* _handle;
};

}  // namespace tallow
