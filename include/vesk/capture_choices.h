#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <vesk/device_info.h>
#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/format_description.h>

namespace vesk {

class VeskAudioDevice;
class VeskVideoDevice;

// Which devices and formats are taken where a person has not chosen any.
//
// Threads: as the devices that are asked.

/// The first camera; null when there is none.
VESK_EXPORT std::shared_ptr<VeskDeviceInfo> defaultCamera();
/// The microphone that is built into the camera at `cameraPath`, else the first one; null when there is none.
VESK_EXPORT std::shared_ptr<VeskDeviceInfo> defaultMicrophone(const std::string& cameraPath = "");

/// What frames are wanted for.
enum class CapturePurpose {
  kRecord,   ///< formats that a movie can hold; the best is H.264 before raw frames, up to 1280 × 720
  kPreview,  ///< any that can be shown; the best is the same, other formats last
  kPhoto,    ///< any that can be shown; the best is the largest, Motion JPEG before what is listed first
};

/// Whether a movie can hold frames, or sound, of the format.
VESK_EXPORT bool isRecordable(const CMVideoFormatDescription& format);
VESK_EXPORT bool isRecordable(const CMAudioFormatDescription& format);

/// What a format must be; whatever is not set may be anything.
struct VideoFormatRequest {
  std::optional<uint32_t> codec;  ///< a four-character code, kCMVideoCodecType_…
  std::optional<CMVideoDimensions> size;
  std::optional<double> rate;  ///< frames a second, within one in a hundred
};

struct VideoFormatChoice {
  CMVideoFormatDescriptionRef format;  ///< null when nothing fits
  /// Where only the rate is missing, those that there are, from the highest to the lowest, in frames a second.
  std::vector<double> otherRates;
  Error error;
};

/// Sets an open camera to the best format for the purpose that fits the request, and to the rate asked for, else
/// the nearest to 30 frames a second. Where nothing fits (kNoFormat) the camera stays as it is.
VESK_EXPORT VideoFormatChoice chooseVideoFormat(VeskVideoDevice& camera, const VideoFormatRequest& request = {},
                                                CapturePurpose purpose = CapturePurpose::kRecord);

/// Whether this machine encodes the H.264 of an open camera that has none itself. What is encoded here stands last
/// among the formats, behind those that the camera has.
VESK_EXPORT bool isEncodedHere(VeskVideoDevice& camera);
/// About how many bits a second a movie of the format takes, at `interval` ten-millionths of a second from frame to
/// frame. H.264: what cameras are asked for, or what this machine encodes it with.
VESK_EXPORT uint64_t usualBitRate(const CMVideoFormatDescription& format, uint32_t interval,
                                  bool isEncodedHere = false);

/// What sound must be; whatever is not set may be anything.
struct SoundFormatRequest {
  std::optional<uint32_t> formatID;    ///< kWaveFormatLinearPCM or kWaveFormatAAC
  std::optional<uint32_t> sampleRate;  ///< frames a second
  std::optional<uint32_t> channels;
};

struct SoundFormatChoice {
  CMAudioFormatDescriptionRef format;  ///< null when nothing fits
  Error error;
};

/// Sets an open microphone to the first of its formats that a movie can hold and that fits the request. Where
/// none does (kNoFormat) it stays as it is.
VESK_EXPORT SoundFormatChoice chooseSoundFormat(VeskAudioDevice& microphone, const SoundFormatRequest& request = {});

}  // namespace vesk
