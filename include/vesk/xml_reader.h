#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <vesk/export.h>
#include <vesk/ns_error.h>
#include <vesk/xml_node.h>

namespace vesk {

class XMLTreeBuilder;

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
