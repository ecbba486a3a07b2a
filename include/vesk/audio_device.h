#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <vesk/av_device.h>
#include <vesk/export.h>
#include <vesk/format_description.h>

namespace vesk {

class AVCaptureDevice;

using CMAudioFormatList = std::vector<CMAudioFormatDescriptionRef>;

/// A microphone: lists the sound it can deliver, captures, hands every packet to its delegates, and
/// sets its volume. A format is chosen with setFormat before capture starts.
///
/// Letting a microphone go neither stops nor closes it: it stays in use until the process ends, so
/// close it first. Its packets reach nobody from then on.
///
/// Threads: as VeskVideoDevice. Packets are delivered on the capture library's thread while the
/// delegate list is locked.
class VESK_EXPORT VeskAudioDevice : public VeskAVDevice, public std::enable_shared_from_this<VeskAudioDevice> {
 public:
  /// The microphones attached now, from the device manager.
  static VeskDeviceListPtr getAudioDeviceList();

  /// The microphone of the record, closed and idle; null for no record.
  static std::shared_ptr<VeskAudioDevice> initWithDeviceInfo(std::shared_ptr<VeskDeviceInfo> info);
  ~VeskAudioDevice() override;

  /// @return 0 open, also when it was open already; 7 the library could not open the microphone, or
  ///         the record's path is missing or longer than 1023 UTF-16 units.
  int32_t openDevice();
  /// Stops capture and closes the microphone, also when the stop fails.
  void closeDevice();

  /// The formats on offer; null when the microphone is not open or offers none. Once found they are
  /// kept, also while it is closed and opened again. The format identifiers are kWaveFormat….
  std::shared_ptr<const CMAudioFormatList> getSupportedFormats();

  /// The chosen format; null when there is none.
  CMAudioFormatDescriptionRef getFormat() const;
  /// Chooses the format of the next start by its stream description; null takes the choice back.
  void setFormat(const CMAudioFormatDescriptionRef& format);

  /// Starts capture in the chosen format.
  /// @return 0 started or already capturing; 2 no format chosen, or refused; 3 not open; 5 in use
  ///         elsewhere; anything else is the capture library's own.
  int32_t startCapture();
  /// @return 0 stopped or not capturing; 3 not open; 7 the library could not stop it: it is still
  ///         capturing and may be stopped again.
  int32_t stopCapture();

  // Mute and volume go straight to the microphone, which must be open for that.
  bool isMuteOn() const;
  void setMute(bool mute);
  std::optional<int32_t> getVolumeMax() const { return 255; }
  std::optional<int32_t> getVolumeMin() const { return 0; }
  std::optional<int32_t> getVolumeDefault() const { return 255; }
  /// 0 to 255; none when the microphone does not tell.
  std::optional<int32_t> getVolumeCur() const;
  /// Sets the volume to the low 8 bits of `volume`.
  void setVolumeCur(int32_t volume);
  /// Always false: microphones do not set their volume by themselves here.
  bool isAutoVolumeSet() const { return false; }
  void setAutoVolume(bool) {}

  // The level meter. It listens to the microphone a second time, beside a capture, and needs the
  // device neither open nor capturing. It is started and stopped on the main thread.

  /// Begins to tell the delegates that take levels how loud the microphone is, every 0.03 seconds on
  /// the main queue. Nothing when it is running already. A microphone that cannot be listened to
  /// leaves the meter running without reports; lastError says why.
  /// @return 0
  int32_t startVUMeter();
  /// Ends it: every delegate that takes levels has had negative infinity, on the calling thread,
  /// when this returns, and gets no level of this run after it. Nothing when it is not running.
  /// @return 0
  int32_t stopVUMeter();
  /// Makes the running meter listen to `device`, or to none.
  void setSelectedAudioDevice(const std::shared_ptr<const AVCaptureDevice>& device);
  /// What the meter's timer does: hands the present level to the delegates.
  void micLevelTimerFired();

 private:
  explicit VeskAudioDevice(std::shared_ptr<VeskDeviceInfo> info);

  Error listen();
  void endMeter();

  struct VESK_LOCAL State;
  const std::unique_ptr<State> mState;
};

}  // namespace vesk
