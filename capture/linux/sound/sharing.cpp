#include "capture/linux/sound/sharing.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <vesk/vci.h>

namespace vesk::capture {
namespace {

/// The nearest frames in the other rate, channels doubled or left out.
std::vector<uint8_t> adapt(std::span<const uint8_t> bytes, const WaveFormat& from, const WaveFormat& to) {
  const size_t frames = bytes.size() / (size_t{from.channels} * 2);
  const size_t made = frames * to.samplesPerSecond / from.samplesPerSecond;
  std::vector<uint8_t> out(made * to.channels * 2);
  for (size_t frame = 0; frame < made; ++frame) {
    const size_t source = frame * from.samplesPerSecond / to.samplesPerSecond;
    for (size_t channel = 0; channel < to.channels; ++channel) {
      const size_t heard = std::min<size_t>(channel, from.channels - 1U);
      std::memcpy(&out[(frame * to.channels + channel) * 2], &bytes[(source * from.channels + heard) * 2], 2);
    }
  }
  return out;
}

}  // namespace

/// Hands one stream's sound to all who listen.
class SoundSharing::Fan : public SoundSink {
 public:
  void add(const Listener* who, const WaveFormat& format, std::shared_ptr<SoundSink> sink) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mEars.push_back({who, format, std::move(sink)});
  }
  void remove(const Listener* who) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mEars.erase(std::remove_if(mEars.begin(), mEars.end(), [&](const Ear& ear) { return ear.who == who; }),
                mEars.end());
  }
  /// Begins with a stream of that format.
  void setFormat(const WaveFormat& format) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mFormat = format;
    mHasEnded = false;
  }
  bool hasEnded() const VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mHasEnded;
  }
  bool isDeaf() const VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mEars.empty();
  }

  void sound(std::span<const uint8_t> bytes, int64_t time) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    for (const Ear& ear : mEars) {
      if (ear.format == mFormat) {
        ear.sink->sound(bytes, time);
      } else {
        ear.sink->sound(adapt(bytes, mFormat, ear.format), time);
      }
    }
  }
  void lost(uint64_t frames) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    for (const Ear& ear : mEars) ear.sink->lost(ear.format == mFormat ? frames : 0);
  }
  void ended() override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mHasEnded = true;
    for (const Ear& ear : mEars) ear.sink->ended();
  }

 private:
  struct Ear {
    const Listener* who;
    WaveFormat format;
    std::shared_ptr<SoundSink> sink;
  };
  mutable Mutex mMutex;
  WaveFormat mFormat VESK_GUARDED_BY(mMutex);
  bool mHasEnded VESK_GUARDED_BY(mMutex) = false;  ///< the stream: nothing more comes from it
  std::vector<Ear> mEars VESK_GUARDED_BY(mMutex);
};

/// One microphone's stream, and whether a capture has it.
class SoundSharing::Shared {
 public:
  explicit Shared(std::shared_ptr<SoundSystem> system, std::string path)
      : mSystem(std::move(system)), mPath(std::move(path)) {}

  bool join(const Listener* who, const WaveFormat& format, std::shared_ptr<SoundSink> sink, int32_t& status,
            Error& error) VESK_EXCLUDES(mMutex);
  void leave(const Listener* who) VESK_EXCLUDES(mMutex);

 private:
  bool open(const WaveFormat& format, int32_t& status, Error& error) VESK_REQUIRES(mMutex);

  const std::shared_ptr<SoundSystem> mSystem;
  const std::string mPath;
  const std::shared_ptr<Fan> mFan = std::make_shared<Fan>();
  Mutex mMutex;  // before the fan's; never taken by a sink
  std::unique_ptr<SoundStream> mStream VESK_GUARDED_BY(mMutex);
  const Listener* mCapture VESK_GUARDED_BY(mMutex) = nullptr;
  WaveFormat mCaptureFormat VESK_GUARDED_BY(mMutex);
  WaveFormat mMeterFormat VESK_GUARDED_BY(mMutex);
};

class SoundSharing::Listener : public SoundStream {
 public:
  Listener(std::shared_ptr<Shared> shared, bool isMeter) : mShared(std::move(shared)), mIsMeter(isMeter) {}
  ~Listener() override { mShared->leave(this); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  bool isMeter() const { return mIsMeter; }

 private:
  const std::shared_ptr<Shared> mShared;
  const bool mIsMeter;
};

bool SoundSharing::Shared::join(const Listener* who, const WaveFormat& format, std::shared_ptr<SoundSink> sink,
                                int32_t& status, Error& error) {
  MutexLock lock(mMutex);
  if (!who->isMeter() && mCapture) {
    status = kVCIBusy;
    error = {Cause::kBusy, "it is being recorded from already", "End the other recording."};
    return false;
  }
  if (who->isMeter()) mMeterFormat = format;
  // A capture chooses the format; the meters that came before it go on in that. A microphone that was away needs
  // another stream, also where those who listened before have not left.
  if (!who->isMeter() || mFan->hasEnded()) mStream.reset();
  mFan->add(who, format, std::move(sink));
  if (mStream || open(mCapture ? mCaptureFormat : format, status, error)) {
    if (who->isMeter()) return true;
    mCapture = who;
    mCaptureFormat = format;
    return true;
  }
  mFan->remove(who);
  // The meters that were listening go on as before.
  Error ignored;
  int32_t unused = kVCIFailed;
  if (!mFan->isDeaf() && !open(mCapture ? mCaptureFormat : mMeterFormat, unused, ignored)) mFan->ended();
  return false;
}

bool SoundSharing::Shared::open(const WaveFormat& format, int32_t& status, Error& error) {
  mFan->setFormat(format);
  mStream = mSystem->record(mPath, format, mFan, status, error);
  return mStream != nullptr;
}

void SoundSharing::Shared::leave(const Listener* who) {
  MutexLock lock(mMutex);
  mFan->remove(who);
  if (mCapture == who) mCapture = nullptr;
  if (mFan->isDeaf()) mStream.reset();
}

SoundSharing::SoundSharing(std::shared_ptr<SoundSystem> system) : mSystem(std::move(system)) {}

std::unique_ptr<SoundStream> SoundSharing::record(const std::string& path, const WaveFormat& format, bool isMeter,
                                                  std::shared_ptr<SoundSink> sink, int32_t& status, Error& error) {
  if (mSystem->canShare()) return mSystem->record(path, format, std::move(sink), status, error);
  std::shared_ptr<Shared> shared;
  {
    MutexLock lock(mMutex);
    auto& entry = mShared[path];
    if (!entry) entry = std::make_shared<Shared>(mSystem, path);
    shared = entry;
  }
  auto listener = std::make_unique<Listener>(shared, isMeter);
  if (!shared->join(listener.get(), format, std::move(sink), status, error)) return nullptr;
  return listener;
}

}  // namespace vesk::capture
