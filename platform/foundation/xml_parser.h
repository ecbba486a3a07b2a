#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include <vesk/ns_error.h>

namespace vesk {

class NSXMLParser;

/// The attributes of an element in the order of the document. The texts are valid during the call.
struct XMLAttribute {
  std::string_view name;
  std::string_view value;
};
using XMLAttributes = std::span<const XMLAttribute>;

/// What a parser tells of a document while it reads it. All texts are UTF-8, with references
/// resolved, and valid during the call.
class NSXMLParserDelegate {
 public:
  virtual ~NSXMLParserDelegate() = default;

  /// Names are as written: `namespaceURI` is always empty, `qualifiedName` the element's name again.
  virtual void parserDidStartElement(NSXMLParser& parser, std::string_view elementName, std::string_view namespaceURI,
                                     std::string_view qualifiedName, XMLAttributes attributes) = 0;
  virtual void parserDidEndElement(NSXMLParser& parser, std::string_view elementName, std::string_view namespaceURI,
                                   std::string_view qualifiedName) = 0;
  /// A piece of text: all that stands between two tags, comments, processing instructions or edges of
  /// CDATA sections.
  virtual void parserFoundCharacters(NSXMLParser& parser, std::string_view text) = 0;
  /// The document cannot be read any further; nothing is told after this.
  virtual void parserParseErrorOccurred(NSXMLParser& parser, const NSError& error) = 0;
};

/// Reads a document from memory and tells its delegate what it finds, within limits that keep the
/// time and the memory of hostile documents small. UTF-8, UTF-16 and the single-byte encodings that the C
/// library knows are read, the first two and Latin-1 also under their usual misspellings.
///
/// Threads: one parser is used by one thread.
class NSXMLParser {
 public:
  static constexpr size_t kMostBytes = size_t{16} << 20;
  static constexpr size_t kMostItems = 500'000;  ///< elements and attributes
  static constexpr size_t kMostLevels = 128;
  static constexpr size_t kMostText = size_t{32} << 20;  ///< bytes, entities expanded

  /// The bytes outlive the parser.
  static NSXMLParser initWithData(std::span<const uint8_t> bytes) { return NSXMLParser(bytes); }

  /// Not owned; it outlives the parser.
  void setDelegate(NSXMLParserDelegate* delegate) { mDelegate = delegate; }
  /// @return whether the document is well-formed and within the limits.
  bool parse();

 private:
  explicit NSXMLParser(std::span<const uint8_t> bytes) : mBytes(bytes) {}

  const std::span<const uint8_t> mBytes;
  NSXMLParserDelegate* mDelegate = nullptr;
};

}  // namespace vesk
