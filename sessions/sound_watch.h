#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <vesk/device_delegate.h>
#include <vesk/format_description.h>
#include <vesk/recording_supervisor.h>

namespace vesk {

/// Listens to the packets of a microphone that is being recorded: how loud it is, and for how long it has been
/// quiet. Time is that of the sound, so that footage that runs faster is measured the same.
///
/// AAC is not decoded for it: only footage and simulated microphones send that, and it would put a decoder on
/// the way of the sound into the movie. The level is unknown then.
///
/// Threads: packets on the capture thread, the rest from any thread.
class SoundWatch : public VeskAVDeviceDelegate {
 public:
  /// For packets of the format; nothing is measured where they are not 16-bit PCM.
  explicit SoundWatch(const CMAudioFormatDescription& format);

  void didCaptureFrame(void* packet, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>& device) override;

  /// Of any format.
  uint64_t packets() const { return mPackets; }
  bool isMeasuring() const { return mChannels != 0; }
  /// The mean power of the loudest channel in the last packet, in decibels: negative infinity for silence and
  /// before the first packet.
  float level() const { return mLevel; }
  /// Seconds of sound since the last packet that was louder than kQuietSoundLevel.
  double quietFor() const;
  /// Whether any packet was louder than that.
  bool wasHeard() const { return mWasHeard; }

 private:
  const uint32_t mChannels;
  const double mRate;
  std::atomic<uint64_t> mPackets{0};
  std::atomic<float> mLevel;
  std::atomic<uint64_t> mQuietFrames{0};
  std::atomic<bool> mWasHeard{false};
};

}  // namespace vesk
