#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include <vesk/four_char_code.h>
#include "platform/decompression/handle.h"
#include "platform/decompression/status.h"

namespace vesk {

/// What compressed pictures are: a record of 86 bytes, then extension atoms (32-bit size with the
/// eight bytes before the body, 32-bit type, body). All of it big-endian, byte for byte as a sample
/// description of a QuickTime movie stands in the file.
///
/// Threads: like a plain value.
class ImageDescription {
 public:
  static constexpr size_t kSize = 86;  ///< without extensions

  /// A number in the record, at a byte offset.
  template <class T>
  struct Field {
    size_t offset;
  };
  static constexpr Field<uint32_t> kIDSize{0};  ///< bytes of the whole description
  static constexpr Field<uint32_t> kCType{4};   ///< codec
  static constexpr Field<uint16_t> kVersion{16};
  static constexpr Field<uint16_t> kRevisionLevel{18};
  static constexpr Field<uint32_t> kVendor{20};
  static constexpr Field<uint16_t> kWidth{32};
  static constexpr Field<uint16_t> kHeight{34};
  static constexpr Field<uint32_t> kHRes{36};    ///< pixels per inch, 16.16 fixed point
  static constexpr Field<uint32_t> kVRes{40};    ///< pixels per inch, 16.16 fixed point
  static constexpr Field<uint16_t> kDepth{82};   ///< bits a pixel
  static constexpr Field<uint16_t> kClutID{84};  ///< colour table; 0xFFFF for none
  using Name = std::array<uint8_t, 32>;          ///< a count of up to 31 and as many characters

  /// A cleared record without extensions.
  ImageDescription() : mBytes(NewHandleClear(kSize)) {}

  template <class T>
  T get(Field<T> field) const {
    uint32_t value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value = value << 8 | mBytes[field.offset + i];
    return static_cast<T>(value);
  }
  template <class T>
  void set(Field<T> field, T value) {
    for (size_t i = sizeof(T); i-- > 0; value = static_cast<T>(uint64_t{value} >> 8))
      mBytes[field.offset + i] = static_cast<uint8_t>(value);
  }
  void setName(const Name& name);

  /// The whole description, extensions included.
  std::span<const uint8_t> bytes() const { return mBytes; }
  /// The body of the first extension of a type; nothing when there is none.
  std::optional<std::span<const uint8_t>> extension(uint32_t type) const;
  /// Appends an extension and updates the size in the record.
  void addExtension(uint32_t type, std::span<const uint8_t> body);
  /// Takes the first extension of a type away, if there is one.
  void removeExtension(uint32_t type);

 private:
  struct Place {
    size_t offset;  ///< of the atom's size
    size_t size;    ///< of the whole atom
  };
  std::optional<Place> find(uint32_t type) const;

  Handle mBytes;
};

using ImageDescriptionHandle = std::unique_ptr<ImageDescription>;

/// Appends a copy of `body` to `description` as an extension of the given type.
/// @return paramErr for a body that no 32-bit atom size can hold; memFullErr.
OSStatus AddImageDescriptionExtension(ImageDescription& description, const Handle& body, uint32_t type);

constexpr uint32_t kQTPropertyClass_ImageDescription = fourCharCode("idsc");
/// Colours as code points of ISO/IEC 23091-2, ten bytes: "nclc", then primaries, transfer function
/// and matrix, 16 bits each, big-endian. Kept in the extension "colr".
constexpr uint32_t kICMImageDescriptionPropertyID_NCLCColorInfo = fourCharCode("nclc");
constexpr size_t kNCLCColorInfoSize = 10;

/// Copies a property of the description into `value`, which has the property's exact size.
/// @return kICMPropertyNotFoundErr when the description does not have it, or it is no property of
///         descriptions; paramErr for another size.
OSStatus ICMImageDescriptionGetProperty(const ImageDescription& description, uint32_t propertyClass, uint32_t property,
                                        std::span<uint8_t> value);
/// Sets or replaces a property of the description. The same errors.
OSStatus ICMImageDescriptionSetProperty(ImageDescription& description, uint32_t propertyClass, uint32_t property,
                                        std::span<const uint8_t> value);

}  // namespace vesk
