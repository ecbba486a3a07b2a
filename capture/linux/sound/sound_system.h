#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include <vesk/error.h>

namespace vesk::capture {

/// A microphone as the sound system knows it.
struct Microphone {
  DeviceDescription description;
  /// The folder in sysfs of the USB device that it is part of, by which a camera finds its own
  /// microphone; empty when it is not known or not USB.
  std::string usbParent;
  std::string attachment;  ///< another one each time that it is plugged in; may be empty
};

/// Receives what a stream hands over, on a thread of the stream's; its calls never wait.
class SoundSink {
 public:
  virtual ~SoundSink() = default;
  /// Bytes of 16-bit PCM; the first was recorded at about `time` microseconds of the monotonic clock.
  virtual void sound(std::span<const uint8_t> bytes, int64_t time) = 0;
  /// `frames` frames were lost before the next bytes; 0 when it is not known how many.
  virtual void lost(uint64_t frames) = 0;
  /// Nothing more comes: the microphone or the sound server has gone.
  virtual void ended() = 0;
};

/// A microphone that is being recorded from. Destroying it ends that: afterwards the sink is not
/// called any more. Never destroyed from inside its sink.
class SoundStream {
 public:
  virtual ~SoundStream() = default;
};

/// What the machine's sound comes from: a sound server, or the drivers themselves.
///
/// Threads: every operation from any thread.
class SoundSystem {
 public:
  virtual ~SoundSystem() = default;

  /// The microphones attached now, the default one first. Monitors of outputs are not among them.
  virtual std::vector<Microphone> microphones() = 0;
  /// What the microphone delivers: 16-bit PCM, best first.
  virtual std::vector<WaveFormat> formats(const std::string& path) = 0;
  /// Begins to record. @return null with a status of vci.h and the reason on failure; the microphone is not named
  /// in it.
  virtual std::unique_ptr<SoundStream> record(const std::string& path, const WaveFormat& format,
                                              std::shared_ptr<SoundSink> sink, int32_t& status, Error& error) = 0;
  /// Whether a microphone can be recorded from several times at once.
  virtual bool canShare() const = 0;

  // Volume is linear, 0 to 255. Answers are the status values of vci.h.
  virtual int32_t getVolume(const std::string& path, uint32_t& volume) = 0;
  virtual int32_t setVolume(const std::string& path, uint8_t volume) = 0;
  virtual int32_t getMute(const std::string& path, bool& mute) = 0;
  virtual int32_t setMute(const std::string& path, bool mute) = 0;

  /// Why the system cannot be asked anything now; no error while it can.
  virtual Error trouble() { return {}; }
  /// Whether a server is there. While there is none nothing reports when it comes back: asking
  /// for the microphones tries it. Takes no lock.
  virtual bool isAnswering() { return true; }

  /// Has `handler` called, on a thread of the system's, when the microphones may have changed; an
  /// empty one ends it. The handler must not call the system. After the call has returned the old
  /// handler is not called any more.
  virtual void setChangeHandler(std::function<void()> handler) = 0;
};

/// The sound server's microphones when one runs, else the drivers' own: one of the two always, since
/// microphones may come later. `error` says so when there is neither now.
std::shared_ptr<SoundSystem> makeSoundSystem(Error& error);
/// The sound server's; null with the reason when none runs. No server is started.
std::shared_ptr<SoundSystem> makePulseSoundSystem(Error& error);
/// The drivers' own; `extra` names microphones that only the configuration of ALSA knows. `error`
/// is set when there is no sound card now.
std::shared_ptr<SoundSystem> makeAlsaSoundSystem(const std::vector<std::string>& extra, Error& error);

}  // namespace vesk::capture
