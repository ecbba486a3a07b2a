#include "capture/linux/sound/microphone.h"

#include <algorithm>
#include <utility>

#include <vesk/log.h>
#include <vesk/vci.h>

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
  if (mFormats.empty()) return kVCIFailed;
  auto delivery = std::make_shared<SoundDelivery>(mName, mFormat, std::move(callback));
  int32_t status = kVCIFailed;
  std::string error;
  mStream = mSharing->record(mPath, mFormat, mIsMeter, delivery, status, error);
  if (!mStream) {
    NSLog("[WARNING]: " + mName + ": " + error);
    return status == kVCISuccess ? int32_t{kVCIFailed} : status;
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

int32_t SoundMicrophone::getMute(bool& mute) {
  return mSystem->getMute(mPath, mute);
}

int32_t SoundMicrophone::setMute(bool mute) {
  return mSystem->setMute(mPath, mute);
}

int32_t SoundMicrophone::getVolume(uint32_t& volume) {
  return mSystem->getVolume(mPath, volume);
}

int32_t SoundMicrophone::setVolume(uint8_t volume) {
  return mSystem->setVolume(mPath, volume);
}

}  // namespace vesk::capture
