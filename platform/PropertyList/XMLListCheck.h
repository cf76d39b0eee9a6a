#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "platform/PropertyList/KeyBudget.h"
#include "platform/PropertyList/PropertyListNode.h"

namespace tallow::PropertyList {

// Goes once over the text of an XML list before the library gets it: one value inside at most one
// <plist>, tags properly nested and not too deep, keys and values in turn, numbers and dates that
// the library reads as they are meant, nothing after the end, and nothing on which its time grows
// with the square of the text. Reads markup exactly where the library does, and refuses what the
// two could read differently. Makes no copies.
class XMLListCheck {
 public:
  explicit XMLListCheck(std::string_view text) : _text(text) {}

  // nullopt when the list is sound.
  std::optional<Error> run();

 private:
  enum class Kind { Array, Dictionary };
  struct Container {
    Kind kind = Kind::Array;
    bool hasKey = false;       // a key waits for its value
    std::size_t firstKey = 0;  // in _keys
  };
  struct Tag {
    std::string_view name;
    bool isClosing = false;
    bool isEmpty = false;
  };
  struct Content {
    std::string_view raw;    // up to the closing tag
    bool hasMarkup = false;  // comments or CDATA sections
    std::size_t entities = 0;
  };

  std::optional<Error> readTag(Tag& tag);
  std::optional<Error> open(const Tag& tag);
  std::optional<Error> close(const Tag& tag);
  std::optional<Error> readLeaf(const Tag& tag);
  std::optional<Error> readContent(std::string_view name, Content& content);
  std::optional<Error> checkLeaf(std::string_view name, const Content& content);
  std::optional<Error> noteKey(const Content& content);

  void skipSpace();
  bool skipAfter(std::string_view end);
  bool skipInstruction();
  bool skipDocumentType();
  bool skipAttributes();
  bool startsWith(std::string_view text) const { return _text.substr(_position).starts_with(text); }

  std::string_view _text;
  std::size_t _position = 0;
  bool _inList = false;  // between <plist> and </plist>
  bool _listClosed = false;
  bool _hasRoot = false;
  std::vector<Container> _path;
  std::vector<std::string_view> _keys;  // of the open dictionaries, outermost first
  std::size_t _nodes = 0;
  std::size_t _work = 0;
  KeyBudget _keyBudget;
};

}  // namespace tallow::PropertyList
