#include "platform/decompression/image_description.h"

#include <algorithm>
#include <limits>
#include <new>

#include "platform/foundation/byte_reader.h"

namespace vesk {
namespace {

constexpr size_t kAtomHeaderSize = 8;
constexpr size_t kNameOffset = 50;
constexpr uint32_t kColourAtom = fourCharCode("colr");

bool isColourInfo(uint32_t propertyClass, uint32_t property) {
  return propertyClass == kQTPropertyClass_ImageDescription && property == kICMImageDescriptionPropertyID_NCLCColorInfo;
}

}  // namespace

void ImageDescription::setName(const Name& name) {
  std::copy(name.begin(), name.end(), mBytes.begin() + kNameOffset);
}

std::optional<ImageDescription::Place> ImageDescription::find(uint32_t type) const {
  size_t offset = kSize;
  while (mBytes.size() - offset >= kAtomHeaderSize) {
    const size_t size = readBigEndian32(&mBytes[offset]);
    if (size < kAtomHeaderSize || size > mBytes.size() - offset) return std::nullopt;
    if (readBigEndian32(&mBytes[offset + 4]) == type) return Place{offset, size};
    offset += size;
  }
  return std::nullopt;
}

std::optional<std::span<const uint8_t>> ImageDescription::extension(uint32_t type) const {
  const auto place = find(type);
  if (!place) return std::nullopt;
  return std::span(mBytes).subspan(place->offset + kAtomHeaderSize, place->size - kAtomHeaderSize);
}

void ImageDescription::addExtension(uint32_t type, std::span<const uint8_t> body) {
  const size_t offset = mBytes.size();
  const size_t size = kAtomHeaderSize + body.size();
  mBytes.resize(offset + size);
  writeBigEndian32(&mBytes[offset], static_cast<uint32_t>(size));
  writeBigEndian32(&mBytes[offset + 4], type);
  std::copy(body.begin(), body.end(), mBytes.begin() + static_cast<ptrdiff_t>(offset + kAtomHeaderSize));
  set(kIDSize, static_cast<uint32_t>(mBytes.size()));
}

void ImageDescription::removeExtension(uint32_t type) {
  const auto place = find(type);
  if (!place) return;
  const auto from = mBytes.begin() + static_cast<ptrdiff_t>(place->offset);
  mBytes.erase(from, from + static_cast<ptrdiff_t>(place->size));
  set(kIDSize, static_cast<uint32_t>(mBytes.size()));
}

OSStatus AddImageDescriptionExtension(ImageDescription& description, const Handle& body, uint32_t type) {
  constexpr size_t kMostBytes = std::numeric_limits<uint32_t>::max() - kAtomHeaderSize;
  if (body.size() > kMostBytes - description.bytes().size()) return paramErr;
  try {
    description.addExtension(type, body);
  } catch (const std::bad_alloc&) {
    return memFullErr;
  }
  return noErr;
}

OSStatus ICMImageDescriptionGetProperty(const ImageDescription& description, uint32_t propertyClass, uint32_t property,
                                        std::span<uint8_t> value) {
  if (!isColourInfo(propertyClass, property)) return kICMPropertyNotFoundErr;
  if (value.size() != kNCLCColorInfoSize) return paramErr;
  const auto colour = description.extension(kColourAtom);
  if (!colour || colour->size() != kNCLCColorInfoSize) return kICMPropertyNotFoundErr;
  std::copy(colour->begin(), colour->end(), value.begin());
  return noErr;
}

OSStatus ICMImageDescriptionSetProperty(ImageDescription& description, uint32_t propertyClass, uint32_t property,
                                        std::span<const uint8_t> value) {
  if (!isColourInfo(propertyClass, property)) return kICMPropertyNotFoundErr;
  if (value.size() != kNCLCColorInfoSize) return paramErr;
  description.removeExtension(kColourAtom);
  return AddImageDescriptionExtension(description, PtrToHand(value), kColourAtom);
}

}  // namespace vesk
