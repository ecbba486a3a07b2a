#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <vesk/audio_device.h>
#include <vesk/device_info.h>
#include <vesk/format_description.h>
#include <vesk/video_device.h>
#include "apps/vesk/program.h"

namespace vesk::program {

/// The camera that `text` names: an index from 0, a path, a device node, or a unique part of a name
/// (letter case does not count); the first one when `text` is empty.
/// @throws Failure when there is none, or more than one fits.
std::shared_ptr<VeskVideoDevice> chooseCamera(const std::string& text);
/// The microphone that `text` names, by the same rules.
std::shared_ptr<VeskAudioDevice> chooseMicrophone(const std::string& text);
/// The microphone that goes with no further word: the one that is built into `camera`, if any, else the
/// first one; null when there is none.
std::shared_ptr<VeskAudioDevice> defaultMicrophone(const std::shared_ptr<VeskVideoDevice>& camera = nullptr);

/// Opens a device. @throws Failure when it cannot be opened.
void openDevice(VeskVideoDevice& camera);
void openDevice(VeskAudioDevice& microphone);

/// What pictures are wanted for.
enum class Purpose {
  kRecord,   ///< formats that a movie can hold; the best is H.264 before raw pictures, up to 1280 × 720
  kPreview,  ///< any that can be shown; the best is the same, other formats last
  kPhoto,    ///< any that can be shown; the best is the largest, Motion JPEG before what is listed first
};

/// Sets an open camera to the picture format and rate that fit `text`, as readFormat takes it; empty for the best
/// for the purpose. Without a rate it is the nearest to 30 pictures a second.
/// @return the format
/// @throws Failure when the text cannot be read or nothing fits.
CMVideoFormatDescriptionRef setVideoFormat(VeskVideoDevice& camera, const std::string& text,
                                           Purpose purpose = Purpose::kRecord);
/// What to say of a format that no movie can hold.
Failure notRecordable(uint32_t codec);
/// Whether a movie can hold pictures of the format.
bool isRecordable(const CMVideoFormatDescription& format);
/// A sound format of an open microphone that fits `text`: "pcm:48000:2", "pcm:48000", "aac", or empty
/// for the first that a movie can hold.
CMAudioFormatDescriptionRef chooseSoundFormat(VeskAudioDevice& microphone, const std::string& text);

/// The name to show for a device, its path when it has none.
std::string nameOf(const VeskDeviceInfo& info);

/// "pcm", "aac", or the code as a hexadecimal number.
std::string soundCodecName(uint32_t formatID);

}  // namespace vesk::program
