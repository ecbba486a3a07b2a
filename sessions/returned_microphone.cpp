#include "sessions/returned_microphone.h"

#include <fmt/format.h>

#include <utility>

#include <vesk/capture_choices.h>
#include "sessions/device_name.h"

namespace vesk {

std::unique_ptr<ReturnedMicrophone> ReturnedMicrophone::open(const std::shared_ptr<VeskDeviceInfo>& info,
                                                             const MoviePlan& plan, const MovieRecording& movie,
                                                             Error& error) {
  plan.microphone->stopCapture();
  plan.microphone->closeDevice();
  auto microphone = VeskAudioDevice::initWithDeviceInfo(info);
  const AudioStreamBasicDescription& sound = plan.soundFormat->streamBasicDescription();
  if (microphone->openDevice() != 0) {
    error = refusalOf(*microphone, {Cause::kRefused, fmt::format("\"{}\" could not be opened", displayName(*info)),
                                    "Close other programs that use it, or plug it in again."});
    return nullptr;
  }
  error = chooseSoundFormat(*microphone, {.formatID = sound.mFormatID,
                                          .sampleRate = static_cast<uint32_t>(sound.mSampleRate),
                                          .channels = sound.mChannelsPerFrame})
              .error;
  if (error) {
    microphone->closeDevice();
    return nullptr;
  }
  std::unique_ptr<ReturnedMicrophone> returned(new ReturnedMicrophone(std::move(microphone), movie));
  if (returned->mMicrophone->startCapture() == 0) return returned;
  error =
      refusalOf(*returned->mMicrophone, {Cause::kRefused, fmt::format("\"{}\" refused to start", displayName(*info)),
                                         "Close other programs that use it."});
  return nullptr;
}

ReturnedMicrophone::ReturnedMicrophone(std::shared_ptr<VeskAudioDevice> microphone, const MovieRecording& movie)
    : mMicrophone(std::move(microphone)), mSession(movie.session()), mSoundWatch(movie.soundWatch()) {
  mMicrophone->addDelegate(mSession);
  mMicrophone->addDelegate(mSoundWatch);
}

ReturnedMicrophone::~ReturnedMicrophone() {
  mMicrophone->removeDelegate(mSession);
  mMicrophone->removeDelegate(mSoundWatch);
  mMicrophone->stopCapture();
  mMicrophone->closeDevice();
}

}  // namespace vesk
