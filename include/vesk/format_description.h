#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <vesk/audio_format.h>
#include <vesk/export.h>

namespace vesk {

class CMAudioFormatDescription;

/// What the samples of a track are. Immutable, so it may be shared between threads.
class VESK_EXPORT CMFormatDescription {
 public:
  virtual ~CMFormatDescription() = default;
  CMFormatDescription(const CMFormatDescription&) = delete;
  CMFormatDescription& operator=(const CMFormatDescription&) = delete;

  /// The codec of a picture, the format identifier of sound.
  uint32_t mediaSubType() const { return mSubType; }
  /// This one where it describes sound, else null.
  virtual const CMAudioFormatDescription* asSound() const { return nullptr; }

 protected:
  explicit CMFormatDescription(uint32_t subType) : mSubType(subType) {}

 private:
  uint32_t mSubType;
};

struct CMVideoDimensions {
  int32_t width = 0;   ///< pixels
  int32_t height = 0;  ///< pixels
  bool operator==(const CMVideoDimensions&) const = default;
};

/// Further facts about a picture format. A field that is not set is not part of the format.
struct VideoFormatExtensions {
  /// kCMFormatDescriptionExtension_SampleDescriptionExtensionAtoms: atoms of the sample
  /// description by type, for example "avcC" → the decoder configuration record.
  std::map<std::string, std::vector<uint8_t>> sampleDescriptionExtensionAtoms;
  /// kCMFormatDescriptionExtension_BytesPerRow.
  std::optional<int32_t> bytesPerRow;
};

class VESK_EXPORT CMVideoFormatDescription final : public CMFormatDescription {
 public:
  /// A description of `codec` pictures of width × height pixels; null unless both are positive.
  static std::shared_ptr<const CMVideoFormatDescription> create(uint32_t codec, int32_t width, int32_t height,
                                                                VideoFormatExtensions extensions = {});

  CMVideoDimensions dimensions() const { return mDimensions; }
  const VideoFormatExtensions& extensions() const { return mExtensions; }

 private:
  CMVideoFormatDescription(uint32_t codec, CMVideoDimensions dimensions, VideoFormatExtensions extensions);

  CMVideoDimensions mDimensions;
  VideoFormatExtensions mExtensions;
};

class VESK_EXPORT CMAudioFormatDescription final : public CMFormatDescription {
 public:
  /// A description of sound, without channel layout, magic cookie or extensions.
  static std::shared_ptr<const CMAudioFormatDescription> create(const AudioStreamBasicDescription& description);

  const AudioStreamBasicDescription& streamBasicDescription() const { return mDescription; }
  const CMAudioFormatDescription* asSound() const override { return this; }

 private:
  explicit CMAudioFormatDescription(const AudioStreamBasicDescription& description);

  AudioStreamBasicDescription mDescription;
};

using CMFormatDescriptionRef = std::shared_ptr<const CMFormatDescription>;
using CMVideoFormatDescriptionRef = std::shared_ptr<const CMVideoFormatDescription>;
using CMAudioFormatDescriptionRef = std::shared_ptr<const CMAudioFormatDescription>;

/// Fills in the fields of `description` that follow from its format identifier and rate (for AAC:
/// 1024 frames a packet). False, and nothing changed, for a format that is not known.
VESK_EXPORT bool AudioFormatCompleteDescription(AudioStreamBasicDescription& description);

}  // namespace vesk
