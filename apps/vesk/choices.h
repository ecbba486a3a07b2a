#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <vesk/audio_device.h>
#include <vesk/capture_choices.h>
#include <vesk/device_info.h>
#include <vesk/video_device.h>
#include "apps/vesk/program.h"

namespace vesk::program {

/// The camera that `text` names: an index from 0, a path, a device node, or a unique part of a name
/// (letter case does not count); the first one when `text` is empty.
/// @throws Failure when there is none, or more than one fits.
std::shared_ptr<VeskDeviceInfo> findCamera(const std::string& text);
/// The microphone that `text` names, by the same rules.
std::shared_ptr<VeskDeviceInfo> findMicrophone(const std::string& text);
/// The same as devices, closed.
std::shared_ptr<VeskVideoDevice> chooseCamera(const std::string& text);
std::shared_ptr<VeskAudioDevice> chooseMicrophone(const std::string& text);
/// The microphone that `text` names, or where it is empty the one that goes with `camera`, which may be
/// null; null when there is none.
std::shared_ptr<VeskAudioDevice> chooseMicrophoneFor(const VeskVideoDevice* camera, const std::string& text);

/// Opens a device. @throws Failure when it cannot be opened.
void openDevice(VeskVideoDevice& camera);
void openDevice(VeskAudioDevice& microphone);

/// Sets an open camera to the picture format and rate that fit `text`, as readFormat takes it; empty for the best
/// for the purpose. Without a rate it is the nearest to 30 pictures a second.
/// @throws Failure when the text cannot be read or nothing fits.
void setVideoFormat(VeskVideoDevice& camera, const std::string& text, CapturePurpose purpose = CapturePurpose::kRecord);
/// What to say of a format that no movie can hold.
Failure notRecordable(uint32_t codec);
/// Sets an open microphone to a format that fits `text`: "pcm:48000:2", "pcm:48000", "aac", or empty for the first
/// that a movie can hold. @throws Failure when the text cannot be read or nothing fits.
void setSoundFormat(VeskAudioDevice& microphone, const std::string& text);

/// The name to show for a device, its path when it has none.
std::string nameOf(const VeskDeviceInfo& info);

/// "pcm", "aac", or the code as a hexadecimal number.
std::string soundCodecName(uint32_t formatID);

}  // namespace vesk::program
