#include "capture/linux/sound/sound_source.h"

#include <pthread.h>

#include <utility>

#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/linux/sound/microphone.h"
#include "capture/sources/hotplug.h"

namespace vesk::capture {
namespace {

constexpr int kLongestChange = 4;  // times the quiet time: how long is waited for it
constexpr int kPatience = 8;       // times the quiet time: how often a server that has gone is looked for

}  // namespace

SoundSource::SoundSource(std::shared_ptr<SoundSystem> system, int quiet)
    : mSystem(std::move(system)), mSharing(std::make_shared<SoundSharing>(mSystem)), mQuiet(quiet) {}

SoundSource::~SoundSource() {
  mHandler.set({});
  stopWatching();
}

std::vector<Microphone> SoundSource::microphones() {
  {
    MutexLock lock(mMutex);
    if (mAnnounced) return *mAnnounced;
  }
  return mSystem->microphones();
}

std::vector<DeviceDescription> SoundSource::devices(DeviceKind kind) {
  std::vector<DeviceDescription> answer;
  if (kind != DeviceKind::kAudio) return answer;
  for (Microphone& microphone : microphones()) answer.push_back(std::move(microphone.description));
  if (answer.empty()) reportTrouble();
  return answer;
}

std::unique_ptr<CaptureDevice> SoundSource::open(DeviceKind kind, const std::string& path) {
  return kind == DeviceKind::kAudio ? openMicrophone(path, false) : nullptr;
}

std::unique_ptr<CaptureDevice> SoundSource::openForMetering(const std::string& path) {
  return openMicrophone(path, true);
}

std::unique_ptr<CaptureDevice> SoundSource::openMicrophone(const std::string& path, bool isMeter) {
  for (const Microphone& microphone : mSystem->microphones()) {
    if (microphone.description.path != path) continue;
    auto opened = std::make_unique<SoundMicrophone>(mSystem, mSharing, microphone, isMeter);
    if (!opened->waveFormats().empty()) return opened;
    Error why = mSystem->trouble();
    if (!why)
      why = {Cause::kNoFormat, "it does not report the formats in which it records",
             "Plug it in again, or restart the sound server."};
    why.what = deviceText(DeviceKind::kAudio, microphone.description.name) + " could not be opened: " + why.what;
    failed(kVCIFailed, std::move(why));
    return nullptr;
  }
  if (!reportTrouble())
    failed(kVCIFailed, {Cause::kUnplugged, "the microphone is not there any more", "Plug it in again."});
  return nullptr;
}

/// Reports why there are no microphones. @return whether there is a reason
bool SoundSource::reportTrouble() {
  Error why = mSystem->trouble();
  if (!why) return false;
  why.what = "no microphone can be found: " + why.what;
  failed(kVCIFailed, std::move(why));
  return true;
}

// The watcher, once begun, runs until the source goes: a handler may be replaced from inside itself.
void SoundSource::setHotplugHandler(HotplugHandler handler) {
  const bool isWanted = static_cast<bool>(handler);
  mHandler.set(std::move(handler));
  {
    MutexLock lock(mMutex);
    if (!isWanted || mIsWatching) return;
    mIsWatching = true;
  }
  mSystem->setChangeHandler([this] {
    MutexLock lock(mMutex);
    ++mChanges;
    mChanged.notify_all();
  });
  mKnown = mSystem->microphones();  // listed once changes are reported, so that none falls in between
  MutexLock lock(mMutex);
  mWatcher = std::thread([this] {
    pthread_setname_np(pthread_self(), "vesk-sound-plug");
    while (waitForChange()) compare();
  });
}

/// Waits until something has changed and nothing more for a while, or a server that has gone is to be
/// looked for; false at the end.
bool SoundSource::waitForChange() {
  MutexLock lock(mMutex);
  while (!mIsEnding && mSeenChanges == mChanges) {
    if (mSystem->isAnswering()) {
      mChanged.wait(mMutex);
    } else if (mChanged.wait_for(mMutex, kPatience * mQuiet) == std::cv_status::timeout) {
      return !mIsEnding;
    }
  }
  // A server may report changes all the time, as one does whose other devices come and go.
  const auto latest = std::chrono::steady_clock::now() + kLongestChange * mQuiet;
  while (!mIsEnding && mSeenChanges != mChanges && std::chrono::steady_clock::now() < latest) {
    mSeenChanges = mChanges;
    mChanged.wait_for(mMutex, mQuiet);
  }
  mSeenChanges = mChanges;
  return !mIsEnding;
}

void SoundSource::compare() {
  const auto before = std::exchange(mKnown, mSystem->microphones());
  // One that was away so shortly that it is there again counts as another: nothing comes from its streams any more.
  const auto isSame = [](const Microphone& one, const Microphone& other) {
    return one.description.path == other.description.path && one.attachment == other.attachment;
  };
  setAnnounced(before);
  announceOneByOne(before, mKnown, isSame, [this](const std::vector<Microphone>& announced, bool arrived) {
    setAnnounced(announced);
    mHandler.call(DeviceKind::kAudio, arrived);
  });
  setAnnounced(std::nullopt);
}

void SoundSource::setAnnounced(std::optional<std::vector<Microphone>> announced) {
  MutexLock lock(mMutex);
  mAnnounced = std::move(announced);
}

void SoundSource::stopWatching() {
  mSystem->setChangeHandler({});
  std::thread watcher;
  {
    MutexLock lock(mMutex);
    mIsEnding = true;
    watcher.swap(mWatcher);
    mChanged.notify_all();
  }
  if (watcher.joinable()) watcher.join();
}

}  // namespace vesk::capture
