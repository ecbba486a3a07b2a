#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <vesk/capture_source.h>
#include <vesk/export.h>

namespace vesk::capture {

/// How footage and simulated devices keep time.
enum class Pace {
  kRealTime,  ///< by the clock
  kFast,      ///< as fast as the receivers take it, with the time stamps of real time
};

/// Options of the sources that keep their own time ("simulated" and "file:").
struct SourceOptions {
  Pace pace = Pace::kRealTime;
  bool loop = false;  ///< footage starts again at its end, its time stamps running on
};

/// Holds the devices of sources that keep their own time in one hand: a host lets several devices
/// start together, ends them at a given moment of their own time, and slows them while it is busy.
/// Sources that deliver what the world sends (real cameras) ignore it.
///
/// Threads: every operation from any thread.
class VESK_EXPORT Transport {
 public:
  /// The transport of the process.
  static Transport& shared();

  /// While held, started devices wait: time stands still for them.
  void hold();
  void release();
  /// Devices end once they have delivered `seconds` of their own time, counted from the first
  /// release or start; none: no end. Set it before the devices start.
  void setLimit(std::optional<double> seconds);
  /// Asked before each delivery; while it answers true the source waits and asks again, after askAgain or
  /// 20 ms. Called on the source's thread; must not block. An empty function never waits.
  void setBackpressure(std::function<bool()> isBusy);
  /// The host is less busy: sources that wait for it ask again at once. Movies under way call it.
  void askAgain();
  /// Called once on the source's thread when every started device has come to its end (of the
  /// footage without looping, or of the limit).
  void setEndHandler(std::function<void()> handler);

  // For sources.
  bool isHeld() const;
  /// Monotonic microseconds of the last release; 0 when nothing was ever held.
  int64_t releasedAt() const;
  /// Microseconds that all holds have lasted so far, the present one included.
  int64_t heldTime() const;
  std::optional<double> limit() const;
  bool isBusy() const;
  /// A source's first device has started; sourceEnded or sourceStopped follows. The end handler
  /// runs when no source that has started is left.
  void sourceStarted();
  /// All started devices of a source have come to their end.
  void sourceEnded();
  /// The last device of a source was stopped before its end.
  void sourceStopped();
  /// Calls `changed` after each hold, release, change of the limit and askAgain for as long as `owner` lives.
  void addObserver(std::weak_ptr<void> owner, std::function<void()> changed);

  Transport();
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

 private:
  struct VESK_LOCAL State;
  std::unique_ptr<State> mState;
};

/// The source of a process that has chosen none: the machine's own devices. Without a camera there is none.
inline constexpr const char* kDefaultSource = "linux";

/// Puts the source that `text` names below the capture interface: "simulated", "file:PATH", "linux"
/// or several joined by "+". Call it before VCI_Init. @return why it could not be set up; no error when it was.
VESK_EXPORT Error selectSource(const std::string& text, const SourceOptions& options);

/// Why the last call of VCI_… or ACI_… that this thread made did not succeed; no error after one that did. Every
/// status other than 0 and 8 has one, and so has a handle that is null.
VESK_EXPORT Error lastError();

/// Puts a source of the host's own below the capture interface (tests, other systems). Call it
/// while nothing is open; the source then belongs to the library.
VESK_EXPORT void setSource(std::shared_ptr<CaptureSource> source);
/// The source in use; null when none has been set.
VESK_EXPORT std::shared_ptr<CaptureSource> currentSource();
/// The path of the microphone that is built into the camera at `path`; empty when it has none.
VESK_EXPORT std::string microphoneOf(const std::string& cameraPath);
/// The path of the camera whose pictures come from the device node ("/dev/video0", or a link to it);
/// empty when there is none.
VESK_EXPORT std::string cameraAtNode(const std::string& node);

}  // namespace vesk::capture
