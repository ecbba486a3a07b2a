#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <vesk/ns_error.h>
#include <vesk/xml_reader.h>
#include "platform/foundation/xml_parser.h"

namespace vesk {

/// Makes the tree that SMXMLReader describes of what a parser tells it.
class XMLTreeBuilder final : public NSXMLParserDelegate {
 public:
  /// What goes wrong is stored in `error`, which may be null or must outlive the builder.
  explicit XMLTreeBuilder(NSError* error) : mErrorPointer(error) {}

  /// The root of the document, null when it cannot be read. May be called again.
  std::shared_ptr<XMLDictionary> build(std::span<const uint8_t> bytes);

  void parserDidStartElement(NSXMLParser& parser, std::string_view elementName, std::string_view namespaceURI,
                             std::string_view qualifiedName, XMLAttributes attributes) override;
  void parserDidEndElement(NSXMLParser& parser, std::string_view elementName, std::string_view namespaceURI,
                           std::string_view qualifiedName) override;
  void parserFoundCharacters(NSXMLParser& parser, std::string_view text) override;
  void parserParseErrorOccurred(NSXMLParser& parser, const NSError& error) override;

 private:
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
