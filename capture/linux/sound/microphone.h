#pragma once

#include <memory>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/linux/sound/delivery.h"
#include "capture/linux/sound/sharing.h"
#include "capture/linux/sound/sound_system.h"

namespace vesk::capture {

/// An open microphone of a sound system.
///
/// Threads: as CaptureDevice demands; stop also from inside a callback.
class SoundMicrophone : public CaptureDevice {
 public:
  SoundMicrophone(std::shared_ptr<SoundSystem> system, std::shared_ptr<SoundSharing> sharing,
                  const Microphone& microphone, bool isMeter);
  ~SoundMicrophone() override;

  int32_t start(uint32_t substream, FrameCallback callback) override VESK_EXCLUDES(mMutex);
  int32_t stop(uint32_t substream) override;
  std::vector<WaveFormat> waveFormats() override;
  /// Refuses what is not among the formats; takes effect at the next start.
  int32_t setWaveFormat(const WaveFormat& format) override VESK_EXCLUDES(mMutex);
  int32_t getMute(bool& mute) override;
  int32_t setMute(bool mute) override;
  int32_t getVolume(uint32_t& volume) override;
  int32_t setVolume(uint8_t volume) override;

 private:
  void end() VESK_EXCLUDES(mMutex);
  int32_t checked(int32_t status) const;

  const std::shared_ptr<SoundSystem> mSystem;
  const std::shared_ptr<SoundSharing> mSharing;
  const std::string mPath;
  const std::string mName;
  const bool mIsMeter;
  const std::vector<WaveFormat> mFormats;
  Mutex mMutex;
  WaveFormat mFormat VESK_GUARDED_BY(mMutex);
  std::unique_ptr<SoundStream> mStream VESK_GUARDED_BY(mMutex);
  std::shared_ptr<SoundDelivery> mDelivery VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
