#pragma once

#include <memory>
#include <string>

#include "capture/linux/sound/pulse_connection.h"
#include "capture/linux/sound/sound_system.h"

namespace vesk::capture {

/// A recording from one of the sound server's sources.
class PulseStream : public SoundStream {
 public:
  PulseStream(std::shared_ptr<PulseConnection> connection, const WaveFormat& format, std::shared_ptr<SoundSink> sink)
      : mConnection(std::move(connection)), mFormat(format), mSink(std::move(sink)) {}
  ~PulseStream() override;
  PulseStream(const PulseStream&) = delete;
  PulseStream& operator=(const PulseStream&) = delete;

  /// Begins. @return kVCISuccess, or why not, with the reason in `error`.
  int32_t begin(const std::string& source, Error& error);

 private:
  static void stateChanged(pa_stream* stream, void* self);
  static void timingKnown(pa_stream* stream, int isDone, void* self);
  static void readable(pa_stream* stream, size_t bytes, void* self);
  void read();
  int64_t firstSampleTime() const;

  const std::shared_ptr<PulseConnection> mConnection;
  const WaveFormat mFormat;
  const std::shared_ptr<SoundSink> mSink;
  pa_stream* mStream = nullptr;
  bool mHasBegun = false;
};

}  // namespace vesk::capture
