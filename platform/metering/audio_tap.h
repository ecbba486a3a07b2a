#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <vesk/export.h>

namespace vesk {

/// A second flow of a microphone's sound, which leaves a capture from the same microphone alone.
///
/// Threads: start and stop from any thread, one at a time; the sink is called on a thread of the
/// tap's. Destroying the tap stops it.
class AudioTap {
 public:
  /// Receives 16-bit native-endian samples, channels interleaved, valid during the call.
  using Sink = std::function<void(std::span<const int16_t> samples)>;

  virtual ~AudioTap() = default;
  virtual uint32_t channels() const = 0;
  virtual uint32_t samplesPerSecond() const = 0;
  /// False when the microphone refuses. Not called again while it runs.
  virtual bool start(Sink sink) = 0;
  /// Once it has returned the sink is not called any more.
  virtual void stop() = 0;
};

/// Where taps come from. Called from any thread.
class AudioTapProvider {
 public:
  struct Microphone {
    std::string uniqueID;
    std::string name;
  };

  virtual ~AudioTapProvider() = default;
  /// The microphones attached now, in a stable order.
  virtual std::vector<Microphone> microphones() = 0;
  /// Null when the microphone is not there, cannot be opened or offers no 16-bit samples.
  virtual std::unique_ptr<AudioTap> openTap(const std::string& uniqueID) = 0;

  /// The provider in use; null at first.
  static std::shared_ptr<AudioTapProvider> shared();
  static void setShared(std::shared_ptr<AudioTapProvider> provider);
};

}  // namespace vesk
