#include "capture/linux/sound/microphone.h"

#include <algorithm>
#include <utility>

#include <vesk/vci.h>
#include "capture/interface/call_error.h"

namespace vesk::capture {

SoundMicrophone::SoundMicrophone(std::shared_ptr<SoundSystem> system, std::shared_ptr<SoundSharing> sharing,
                                 const Microphone& microphone, bool isMeter)
    : mSystem(std::move(system)),
      mSharing(std::move(sharing)),
      mPath(microphone.description.path),
      mName(microphone.description.name),
      mIsMeter(isMeter),
      mFormats(mSystem->formats(mPath)) {
  if (!mFormats.empty()) mFormat = mFormats.front();
}

SoundMicrophone::~SoundMicrophone() {
  end();
}

int32_t SoundMicrophone::start(uint32_t, FrameCallback callback) {
  if (!callback) return kVCIInvalidArgument;
  MutexLock lock(mMutex);
  if (mDelivery) return kVCISuccess;
  if (mFormats.empty())
    return failed(kVCIFailed, {Cause::kNoFormat, deviceText(DeviceKind::kAudio, mName) + " offers no format", ""});
  auto delivery = std::make_shared<SoundDelivery>(mName, mFormat, std::move(callback));
  int32_t status = kVCIFailed;
  Error error;
  mStream = mSharing->record(mPath, mFormat, mIsMeter, delivery, status, error);
  if (!mStream) {
    error.what = deviceText(DeviceKind::kAudio, mName) + " could not be started: " + error.what;
    return failed(status == kVCISuccess ? int32_t{kVCIFailed} : status, std::move(error));
  }
  delivery->begin();
  mDelivery = std::move(delivery);
  return kVCISuccess;
}

int32_t SoundMicrophone::stop(uint32_t) {
  end();
  return kVCISuccess;
}

// Without the lock, which a callback may want that calls back into us.
void SoundMicrophone::end() {
  std::unique_ptr<SoundStream> stream;
  std::shared_ptr<SoundDelivery> delivery;
  {
    MutexLock lock(mMutex);
    stream.swap(mStream);
    delivery.swap(mDelivery);
  }
  stream.reset();
  if (delivery) delivery->end();
}

std::vector<WaveFormat> SoundMicrophone::waveFormats() {
  return mFormats;
}

int32_t SoundMicrophone::setWaveFormat(const WaveFormat& format) {
  if (std::find(mFormats.begin(), mFormats.end(), format) == mFormats.end()) return kVCIInvalidArgument;
  MutexLock lock(mMutex);
  mFormat = format;
  return kVCISuccess;
}

/// What becomes of volume and mute.
int32_t SoundMicrophone::checked(int32_t status) const {
  if (status == kVCISuccess || status == kVCIPropertyNotSupported) return status;
  Error why = mSystem->trouble();
  if (!why) why = {Cause::kRefused, "the sound system does not let it", "Plug the microphone in again."};
  why.what = "volume and mute of " + deviceText(DeviceKind::kAudio, mName) + " are out of reach: " + why.what;
  return failed(status, std::move(why));
}

int32_t SoundMicrophone::getMute(bool& mute) {
  return checked(mSystem->getMute(mPath, mute));
}

int32_t SoundMicrophone::setMute(bool mute) {
  return checked(mSystem->setMute(mPath, mute));
}

int32_t SoundMicrophone::getVolume(uint32_t& volume) {
  return checked(mSystem->getVolume(mPath, volume));
}

int32_t SoundMicrophone::setVolume(uint8_t volume) {
  return checked(mSystem->setVolume(mPath, volume));
}

}  // namespace vesk::capture
