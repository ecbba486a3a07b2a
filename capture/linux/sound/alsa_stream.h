#pragma once

#include <alsa/asoundlib.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capture/linux/sound/sound_system.h"

namespace vesk::capture {

struct AlsaPcmCloser {
  void operator()(snd_pcm_t* pcm) const noexcept { snd_pcm_close(pcm); }
};
using AlsaPcm = std::unique_ptr<snd_pcm_t, AlsaPcmCloser>;

/// Opens a PCM for recording without waiting for others that have it; null with ALSA's negative
/// error number in `code`.
AlsaPcm openAlsaPcm(const std::string& name, int& code);

/// A recording from one of the drivers' microphones, on a thread of its own.
class AlsaStream : public SoundStream {
 public:
  AlsaStream(const WaveFormat& format, std::shared_ptr<SoundSink> sink) : mFormat(format), mSink(std::move(sink)) {}
  ~AlsaStream() override;
  AlsaStream(const AlsaStream&) = delete;
  AlsaStream& operator=(const AlsaStream&) = delete;

  /// Begins. @return kVCISuccess, or why not, with the reason in `error`.
  int32_t begin(const std::string& pcm, Error& error);
  /// With a PCM that is open for recording, not blocking.
  int32_t begin(AlsaPcm pcm, Error& error);

 private:
  int32_t refuse(int code, Error& error) const;
  int configure();
  void run();
  bool waitForSound();
  bool readSome();
  bool recover(int code);
  int64_t firstSampleTime() const;

  const WaveFormat mFormat;
  const std::shared_ptr<SoundSink> mSink;
  AlsaPcm mPcm;
  int mStop = -1;          ///< an eventfd
  bool mHasError = false;  ///< reported by the last poll
  int mErrors = 0;         ///< in a row, without sound in between
  snd_pcm_uframes_t mPeriod = 0;
  std::vector<uint8_t> mBuffer;
  std::thread mThread;
};

}  // namespace vesk::capture
