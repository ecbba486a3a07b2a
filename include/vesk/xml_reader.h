#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include <vesk/export.h>
#include <vesk/ns_error.h>

namespace vesk {

class XMLDictionary;
class XMLNode;
class XMLTreeBuilder;
using XMLList = std::vector<XMLNode>;

/// A node of what SMXMLReader makes of a document. Dictionaries and lists are shared, not copied: a
/// node that is kept keeps what is below it.
class VESK_EXPORT XMLNode {
 public:
  using Value =
      std::variant<std::string, int32_t, bool, std::shared_ptr<const XMLDictionary>, std::shared_ptr<const XMLList>>;

  explicit XMLNode(Value value) : mValue(std::move(value)) {}

  /// The text, number or boolean; null when the node is something else.
  const std::string* text() const { return std::get_if<std::string>(&mValue); }
  const int32_t* number() const { return std::get_if<int32_t>(&mValue); }
  const bool* boolean() const { return std::get_if<bool>(&mValue); }
  /// The dictionary or list; null when the node is something else.
  std::shared_ptr<const XMLDictionary> dictionary() const {
    const auto* const found = std::get_if<std::shared_ptr<const XMLDictionary>>(&mValue);
    return found ? *found : nullptr;
  }
  std::shared_ptr<const XMLList> list() const {
    const auto* const found = std::get_if<std::shared_ptr<const XMLList>>(&mValue);
    return found ? *found : nullptr;
  }

  /// The number; of a boolean 0 or 1, of a text the number it begins with, 0 of everything else.
  int32_t int32Value() const;
  /// The boolean; of a number whether it is not 0, of a text what it says, false of everything else.
  bool booleanValue() const;

 private:
  Value mValue;
};

/// Nodes by name, in the order of the document.
///
/// Threads: one that is not changed any more may be read by any number of threads.
class VESK_EXPORT XMLDictionary {
 public:
  using Entry = std::pair<std::string, XMLNode>;

  size_t size() const { return mEntries.size(); }
  bool empty() const { return mEntries.empty(); }
  const std::vector<Entry>& entries() const { return mEntries; }

  /// The node under `name`, null when there is none. Valid until the dictionary is changed.
  const XMLNode* find(std::string_view name) const;
  XMLNode* find(std::string_view name) { return const_cast<XMLNode*>(std::as_const(*this).find(name)); }
  /// Puts `node` under `name`, in the place of what was there.
  void set(std::string_view name, XMLNode node);

  /// Walks down by the components of `path`, separated by dots: a name in a dictionary; in a list
  /// "last", or an index from 0 (a component that is no number is 0). None where there is nothing,
  /// and below a text or a number.
  std::optional<XMLNode> retrieveForPath(std::string_view path) const;

 private:
  void add(std::string_view name, XMLNode node);

  std::vector<Entry> mEntries;
  // Place by name, once there are many: most dictionaries have a handful, which is searched faster.
  std::unordered_map<std::string, size_t> mPlaces;
};

/// Makes nested dictionaries of an XML document. An element becomes a dictionary of its attributes
/// and children; siblings of one name become a list, in their order; an element that holds text only
/// becomes that text, and one that holds nothing leaves no trace. The text of an element that has
/// attributes or children is kept under "text". The names that resolution catalogues use become
/// numbers and booleans, where they are not repeated; the attribute "PID" is a hexadecimal number.
///
/// Threads: a reader is used by one thread; readers of several threads do not disturb each other.
class VESK_EXPORT SMXMLReader {
 public:
  static constexpr size_t kMostBytes = size_t{16} << 20;  ///< a longer document is refused

  /// The document in the program's resource `name`.xml. @return its root, which holds the document
  /// element under its name; null when there is no such resource or it cannot be read, with the
  /// reason in `error` (may be null).
  static std::shared_ptr<XMLDictionary> dictionaryForPath(const std::string& name, NSError* error);
  /// The same from bytes in memory.
  static std::shared_ptr<XMLDictionary> dictionaryForXMLData(std::span<const uint8_t> bytes, NSError* error);
  /// The same from UTF-8 text.
  static std::shared_ptr<XMLDictionary> dictionaryForXMLString(std::string_view text, NSError* error);

  /// A reader that stores what goes wrong in `error`, which may be null or must outlive it.
  static std::shared_ptr<SMXMLReader> initWithError(NSError* error);
  /// The root of the document, null when it cannot be read. May be called again.
  std::shared_ptr<XMLDictionary> objectWithData(std::span<const uint8_t> bytes);

  ~SMXMLReader();
  SMXMLReader(const SMXMLReader&) = delete;
  SMXMLReader& operator=(const SMXMLReader&) = delete;

 private:
  explicit SMXMLReader(NSError* error);

  const std::unique_ptr<XMLTreeBuilder> mBuilder;
};

}  // namespace vesk
