#pragma once

#include <map>
#include <memory>
#include <string>

#include "capture/linux/sound/sound_system.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// Lets meters listen beside a capture where the sound system hands a microphone out only once: the
/// capture's stream serves all, in its format; a meter alone has the stream until a capture wants it.
/// Where the system shares by itself everyone has a stream of his own.
///
/// Threads: every operation from any thread, but not from inside a sink.
class SoundSharing {
 public:
  explicit SoundSharing(std::shared_ptr<SoundSystem> system);

  /// As SoundSystem::record. A meter's sound is adapted to its format roughly, good for levels only.
  /// A second capture of the same microphone is answered with kVCIBusy where it cannot be shared.
  std::unique_ptr<SoundStream> record(const std::string& path, const WaveFormat& format, bool isMeter,
                                      std::shared_ptr<SoundSink> sink, int32_t& status, Error& error)
      VESK_EXCLUDES(mMutex);

 private:
  class Shared;
  class Listener;
  class Fan;

  const std::shared_ptr<SoundSystem> mSystem;
  Mutex mMutex;
  std::map<std::string, std::shared_ptr<Shared>> mShared VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
