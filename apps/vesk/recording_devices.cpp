#include "apps/vesk/recording_devices.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "apps/vesk/host.h"

namespace vesk::program {
namespace {

bool isAmong(const VeskDeviceList& records, const std::string& path) {
  return std::any_of(records.begin(), records.end(), [&](const auto& record) { return record->path() == path; });
}

}  // namespace

void openCamera(RecordingPlan& plan, const CaptureWish& wish) {
  plan.camera = chooseCamera(wish.camera);
  openDevice(*plan.camera);
  plan.videoFormat = setVideoFormat(*plan.camera, wish.format, wish.purpose);
}

void openMicrophone(RecordingPlan& plan, const CaptureWish& wish) {
  plan.microphone = nullptr;
  plan.soundFormat = nullptr;
  if (wish.noAudio) return;
  plan.microphone = wish.microphone.empty() ? defaultMicrophone(plan.camera) : chooseMicrophone(wish.microphone);
  if (!plan.microphone) return;
  openDevice(*plan.microphone);
  plan.soundFormat = chooseSoundFormat(*plan.microphone, wish.sound);
  plan.microphone->setFormat(plan.soundFormat);
}

void closeDevices(RecordingPlan& plan) {
  if (plan.camera) plan.camera->closeDevice();
  if (plan.microphone) plan.microphone->closeDevice();
}

bool isCameraThere(const std::string& path) {
  return isAmong(*VeskVideoDevice::getVideoDeviceList(), path);
}
bool isMicrophoneThere(const std::string& path) {
  return isAmong(*VeskAudioDevice::getAudioDeviceList(), path);
}

ReturnedMicrophone::ReturnedMicrophone(const MovieRecording& movie)
    : mSession(movie.session()),
      mSoundWatch(movie.soundWatch()),
      mMicrophone(chooseMicrophone(movie.plan().microphone->deviceInfo()->path().value_or(""))) {
  const RecordingPlan& plan = movie.plan();
  plan.microphone->stopCapture();
  plan.microphone->closeDevice();
  const auto& sound = plan.soundFormat->streamBasicDescription();
  openDevice(*mMicrophone);
  mMicrophone->setFormat(chooseSoundFormat(*mMicrophone, fmt::format("{}:{:.0f}:{}", soundCodecName(sound.mFormatID),
                                                                     sound.mSampleRate, sound.mChannelsPerFrame)));
  mMicrophone->addDelegate(mSession);
  mMicrophone->addDelegate(mSoundWatch);
  explained({nameOf(*mMicrophone->deviceInfo())}, [this] {
    if (mMicrophone->startCapture() == 0) return;
    mMicrophone->removeDelegate(mSession);
    mMicrophone->removeDelegate(mSoundWatch);
    throw Failure(kBusy, fmt::format("\"{}\" refused to start.", nameOf(*mMicrophone->deviceInfo())),
                  "Close other programs that use it.");
  });
}

ReturnedMicrophone::~ReturnedMicrophone() {
  mMicrophone->removeDelegate(mSession);
  mMicrophone->removeDelegate(mSoundWatch);
  mMicrophone->stopCapture();
  mMicrophone->closeDevice();
}

}  // namespace vesk::program
