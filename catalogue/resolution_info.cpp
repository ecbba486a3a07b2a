#include <vesk/resolution_info.h>

#include <vesk/xml_reader.h>
#include "catalogue/resolutions_of.h"
#include "platform/foundation/file_bytes.h"
#include "platform/foundation/xml_parser.h"

namespace vesk {
namespace {

/// The list that a node is, or a list of the node alone; null for no node.
std::shared_ptr<const XMLList> asList(const XMLNode* node) {
  if (!node) return nullptr;
  if (auto list = node->list()) return list;
  return std::make_shared<const XMLList>(1, *node);
}

uint32_t numberIn(const XMLDictionary& dictionary, std::string_view name) {
  const XMLNode* const node = dictionary.find(name);
  return node ? static_cast<uint32_t>(node->int32Value()) : 0;
}

bool hasSize(const XMLDictionary& entry, uint32_t width, uint32_t height, uint8_t interpolation) {
  const XMLNode* const interpolated = entry.find("Interpolated");
  const uint8_t isInterpolated = interpolated && interpolated->booleanValue() ? 1 : 0;
  return numberIn(entry, "SelectedWidth") == width && numberIn(entry, "SelectedHeight") == height &&
         isInterpolated == interpolation;
}

/// The codec that an entry names; null when it names none.
const std::string* codecOf(const XMLDictionary& entry) {
  const XMLNode* const frameRate = entry.find("FrameRate");
  const auto dictionary = frameRate ? frameRate->dictionary() : nullptr;
  const XMLNode* const format = dictionary ? dictionary->find("FMT") : nullptr;
  return format ? format->text() : nullptr;  // held by the entry
}

/// The first entry for which `fits` answers true; null when there is none, or no list.
template <class Fits>
SMResolutionInfo::Entry firstEntry(const std::shared_ptr<const XMLList>& list, Fits fits) {
  if (!list) return nullptr;
  for (const XMLNode& node : *list)
    if (auto entry = node.dictionary(); entry && fits(*entry)) return entry;
  return nullptr;
}

}  // namespace

std::shared_ptr<const XMLList> resolutionsOf(const XMLDictionary& catalogue, uint32_t productID) {
  const auto cameras = catalogue.retrieveForPath("Resolutions.Camera");
  const auto camera = firstEntry(asList(cameras ? &*cameras : nullptr),
                                 [productID](const XMLDictionary& each) { return numberIn(each, "PID") == productID; });
  return camera ? asList(camera->find("Resolution")) : nullptr;
}

std::shared_ptr<SMResolutionInfo> SMResolutionInfo::initWithFilepath(std::string url, uint32_t productID) {
  std::shared_ptr<SMResolutionInfo> info(new SMResolutionInfo(std::move(url), productID));
  info->parsePlist(productID);
  return info;
}

std::shared_ptr<const XMLList> SMResolutionInfo::parsePlist(uint32_t productID) {
  mPID = productID;
  const auto bytes = fileBytes(mPath, NSXMLParser::kMostBytes);
  const auto root = bytes ? SMXMLReader::dictionaryForXMLData(*bytes, nullptr) : nullptr;
  auto found = root ? resolutionsOf(*root, productID) : nullptr;
  if (found) mResoultionArray = found;
  return found;
}

SMResolutionInfo::Entry SMResolutionInfo::findResolution(uint32_t productID, uint32_t width, uint32_t height,
                                                         uint8_t interpolation) {
  return firstEntry(parsePlist(productID),
                    [&](const XMLDictionary& entry) { return hasSize(entry, width, height, interpolation); });
}

bool SMResolutionInfo::isResolutionPresent(std::string_view codec, uint32_t width, uint32_t height,
                                           uint8_t isInterpolated) const {
  return firstEntry(mResoultionArray, [&](const XMLDictionary& entry) {
           const std::string* const named = codecOf(entry);
           return (!named || *named == codec) && hasSize(entry, width, height, isInterpolated);
         }) != nullptr;
}

bool SMResolutionInfo::isCodecSupported(std::string_view codec) const {
  return firstEntry(mResoultionArray, [codec](const XMLDictionary& entry) {
           const std::string* const named = codecOf(entry);
           return named && *named == codec;
         }) != nullptr;
}

int16_t SMResolutionInfo::getResolutionCount(uint32_t* count) const {
  if (!mResoultionArray) return -1;
  if (count) *count = static_cast<uint32_t>(mResoultionArray->size());
  return 0;
}

SMResolutionInfo::Entry SMResolutionInfo::getResolutionArrayAtIndex(uint32_t index) const {
  if (!mResoultionArray || index >= mResoultionArray->size()) return nullptr;
  return (*mResoultionArray)[index].dictionary();
}

}  // namespace vesk
