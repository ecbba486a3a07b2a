#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <vesk/export.h>
#include <vesk/ns_error.h>
#include <vesk/xml_node.h>
#include "platform/foundation/xml_parser.h"

namespace vesk {

/// Makes nested dictionaries of an XML document. An element becomes a dictionary of its attributes
/// and children; siblings of one name become a list, in their order; an element that holds text only
/// becomes that text, and one that holds nothing leaves no trace. The text of an element that has
/// attributes or children is kept under "text". The names that resolution catalogues use become
/// numbers and booleans, where they are not repeated; the attribute "PID" is a hexadecimal number.
///
/// Threads: a reader is used by one thread; readers of several threads do not disturb each other.
class VESK_EXPORT SMXMLReader : public NSXMLParserDelegate {
 public:
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

  void parserDidStartElement(NSXMLParser& parser, std::string_view elementName, std::string_view namespaceURI,
                             std::string_view qualifiedName, XMLAttributes attributes) override;
  void parserDidEndElement(NSXMLParser& parser, std::string_view elementName, std::string_view namespaceURI,
                           std::string_view qualifiedName) override;
  void parserFoundCharacters(NSXMLParser& parser, std::string_view text) override;
  void parserParseErrorOccurred(NSXMLParser& parser, const NSError& error) override;

 private:
  explicit SMXMLReader(NSError* error) : mErrorPointer(error) {}

  void begin();
  XMLDictionary& dictionaryAt(size_t level);
  static XMLList& listAt(XMLNode& node);
  static void add(XMLDictionary& parent, XMLList* siblings, std::string_view name, XMLNode node);

  // The open elements, the root first. Most elements turn out to be text: an element's dictionary is
  // made with its first entry, and put into its parent when the element ends.
  std::vector<std::shared_ptr<XMLDictionary>> mDictionaryStack;
  std::string mTextInProgress;  ///< since the last end of an element that used it
  NSError* mErrorPointer;
};

}  // namespace vesk
