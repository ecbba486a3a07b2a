#include <vesk/xml_reader.h>

#include <optional>
#include <vector>

#include <vesk/bundle.h>
#include "catalogue/xml_tree_builder.h"
#include "platform/foundation/file_bytes.h"

namespace vesk {

static_assert(SMXMLReader::kMostBytes == NSXMLParser::kMostBytes);

std::shared_ptr<XMLDictionary> SMXMLReader::dictionaryForPath(const std::string& name, NSError* error) {
  const auto path = NSBundle::mainBundle().pathForResource(name, "xml");
  const auto bytes = path ? fileBytes(*path, kMostBytes) : std::nullopt;
  return dictionaryForXMLData(bytes.value_or(std::vector<uint8_t>()), error);
}

std::shared_ptr<XMLDictionary> SMXMLReader::dictionaryForXMLData(std::span<const uint8_t> bytes, NSError* error) {
  return initWithError(error)->objectWithData(bytes);
}

std::shared_ptr<XMLDictionary> SMXMLReader::dictionaryForXMLString(std::string_view text, NSError* error) {
  return dictionaryForXMLData({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, error);
}

std::shared_ptr<SMXMLReader> SMXMLReader::initWithError(NSError* error) {
  return std::shared_ptr<SMXMLReader>(new SMXMLReader(error));
}

SMXMLReader::SMXMLReader(NSError* error) : mBuilder(std::make_unique<XMLTreeBuilder>(error)) {}

SMXMLReader::~SMXMLReader() = default;

std::shared_ptr<XMLDictionary> SMXMLReader::objectWithData(std::span<const uint8_t> bytes) {
  return mBuilder->build(bytes);
}

}  // namespace vesk
