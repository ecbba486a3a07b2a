#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <vesk/av_device.h>
#include <vesk/camera_controls.h>
#include <vesk/export.h>
#include <vesk/format_description.h>

namespace vesk {

/// Names under which a host may keep a video format of its own; the devices do not use them.
inline constexpr const char* KVXVideoWidth = "kKVXVideoWidth";
inline constexpr const char* KVXVideoHeight = "kKVXVideoHeight";
inline constexpr const char* KVXVideoCodec = "kKVXVideoCodec";

using CMVideoFormatList = std::vector<CMVideoFormatDescriptionRef>;

/// Numbers that a camera tells of itself, by name.
using VeskInformation = std::map<std::string, int32_t>;

/// A camera: lists what it can deliver, captures, and hands every frame to its delegates. A format
/// is chosen with setFormat before capture starts. Letting the camera go stops and closes it.
///
/// Threads: open, close, format and start/stop calls come from the host's thread, one at a time.
/// Frames are delivered on the capture library's thread while the delegate list is locked. Do not
/// hold a lock that a delegate takes while stopping, closing or letting go: they wait for the frame
/// in progress. Closing also waits for the nudge under way.
class VESK_EXPORT VeskVideoDevice : public VeskAVDevice, public std::enable_shared_from_this<VeskVideoDevice> {
 public:
  /// The cameras attached now, from the device manager.
  static VeskDeviceListPtr getVideoDeviceList();
  /// Whether one of them is part of the machine (vendor 0x05AC).
  static bool hasBuiltInCamera();

  /// The camera of the record, closed and idle; null for no record.
  static std::shared_ptr<VeskVideoDevice> initWithDeviceInfo(std::shared_ptr<VeskDeviceInfo> info);
  ~VeskVideoDevice() override;

  /// @return 0 open, also when it was open already; 7 the library could not open the camera, or the
  ///         record's path is missing or longer than 1023 UTF-16 units.
  int32_t openDevice();
  /// Stops capture and closes the camera, also when the stop fails: isCapturing stays true then until the
  /// camera is opened again. A nudge under way gets its stop first; those behind it do not move the head.
  void closeDevice();

  /// The pixel formats as four-character texts in the library's order; none when the camera is not open.
  std::optional<std::vector<std::string>> getMediaFormats() const;
  /// The frame sizes of one pixel format.
  CMVideoFormatList getResolutionsForCodec(uint32_t codec) const;
  /// All formats in all sizes: never null. Asked for once and kept, even when there are none: a
  /// camera that was closed at the first request has an empty list for good.
  std::shared_ptr<const CMVideoFormatList> getSupportedFormats();
  /// Those of `formats` that are of `codec`, in their order; none when `formats` is empty.
  static std::optional<CMVideoFormatList> copyFormatsForCodec(uint32_t codec, const CMVideoFormatList& formats);
  /// The intervals from picture to picture that the camera offers for a format, in ten-millionths
  /// of a second.
  std::vector<uint32_t> getSupportedFrameIntervals(const CMVideoFormatDescriptionRef& format) const;
  /// Always none: intervals are asked for format by format, above.
  std::optional<std::vector<uint32_t>> getSupportedFrameIntervals() const;

  /// The chosen format; null when there is none.
  CMVideoFormatDescriptionRef getFormat() const;
  /// Chooses the format of the next start; null takes the choice back.
  void setFormat(CMVideoFormatDescriptionRef format);
  /// Asks the camera for a format at the chosen rate, 30 pictures a second unless the host chooses otherwise.
  /// @return 0 accepted; 2 refused, or no format given; 3 not open.
  int32_t setCaptureFormat(const CMVideoFormatDescriptionRef& format);

  /// The rate of the next start, as the interval from picture to picture in ten-millionths of a second; none
  /// or 0 leaves it at 30 pictures a second. Kept over stop and start, close and open, and changes of format.
  ///
  /// A camera takes the nearest of its own intervals (getSupportedFrameIntervals), and logs a line where its
  /// driver makes another of it; footage keeps its own rate, and logs that. Movies that are faster than 33
  /// pictures a second need FrameTiming::kCapture. From any thread.
  std::optional<uint32_t> captureInterval() const;
  void setCaptureInterval(std::optional<uint32_t> interval);

  /// Starts capture in the chosen format; a camera that refuses the format captures with what it has.
  /// @return 0 started or already capturing; 2 no format chosen; 3 not open; 6 in use elsewhere; 7
  ///         anything else.
  int32_t startCapture();
  /// @return 0 stopped or not capturing; 3 not open; 7 the library could not stop it: it is still
  ///         capturing and may be stopped again.
  int32_t stopCapture();

  /// Asks a camera that captures H.264 for a key frame soon, so that who joins need not wait for the next one: up
  /// to some seconds. Not every camera can be asked. Returns at once, from any thread; the camera is asked on another.
  void requestKeyFrame();

  // How sessions share a camera: only a running recording keeps it on for the others.

  /// A recording of this camera begins or has ended. The last one to end carries out what was asked
  /// for meanwhile, below, unless the camera was started anew in between.
  void beginRecording();
  void endRecording();
  /// Stops capture, or, while it is being recorded, leaves that to the end of the recording.
  /// @return stopCapture's; 0 when it is left to the recording
  int32_t stopUnlessRecorded();
  /// Stops capture and closes the camera, or leaves both to the end of the recording; opening it
  /// again meanwhile takes the close back.
  void closeUnlessRecorded();

  /// Kept for the host. Capture ignores it: setCaptureInterval is what chooses a rate. From any thread.
  std::optional<uint32_t> frameInterval() const;
  void setFrameInterval(std::optional<uint32_t> interval);

  // Camera controls. Numbers are in the units of camera_controls.h; none where the camera does not
  // have the control or the device is not open. Setters send the low bytes of what they are given,
  // and do not tell whether the camera took it: writeControl does. From any thread; pan and tilt are
  // set from one thread, since setting one sends the other as it is.

  std::optional<int32_t> getPanMin() const { return minimum<int32_t>(ControlID::kPan); }
  std::optional<int32_t> getPanMax() const { return maximum<int32_t>(ControlID::kPan); }
  std::optional<int32_t> getPanCur() const { return current<int32_t>(ControlID::kPan); }
  std::optional<int32_t> getPanDef() const { return initial<int32_t>(ControlID::kPan); }
  void setPanCur(int32_t value) { writeControl(cameraControl(ControlID::kPan), value); }
  std::optional<int32_t> getTiltMin() const { return minimum<int32_t>(ControlID::kTilt); }
  std::optional<int32_t> getTiltMax() const { return maximum<int32_t>(ControlID::kTilt); }
  std::optional<int32_t> getTiltCur() const { return current<int32_t>(ControlID::kTilt); }
  std::optional<int32_t> getTiltDef() const { return initial<int32_t>(ControlID::kTilt); }
  void setTiltCur(int32_t value) { writeControl(cameraControl(ControlID::kTilt), value); }

  std::optional<int16_t> getPanRelMin() const { return minimum<int16_t>(ControlID::kRelativePan); }
  std::optional<int16_t> getPanRelMax() const { return maximum<int16_t>(ControlID::kRelativePan); }
  std::optional<int16_t> getPanRelCur() const { return current<int16_t>(ControlID::kRelativePan); }
  std::optional<int16_t> getPanRelDef() const { return initial<int16_t>(ControlID::kRelativePan); }
  void setPanRelCur(int32_t value) { writeControl(cameraControl(ControlID::kRelativePan), value); }
  std::optional<int16_t> getTiltRelMin() const { return minimum<int16_t>(ControlID::kRelativeTilt); }
  std::optional<int16_t> getTiltRelMax() const { return maximum<int16_t>(ControlID::kRelativeTilt); }
  std::optional<int16_t> getTiltRelCur() const { return current<int16_t>(ControlID::kRelativeTilt); }
  std::optional<int16_t> getTiltRelDef() const { return initial<int16_t>(ControlID::kRelativeTilt); }
  void setTiltRelCur(int32_t value) { writeControl(cameraControl(ControlID::kRelativeTilt), value); }

  std::optional<int32_t> getZoomMin() const { return minimum<int32_t>(ControlID::kZoom); }
  std::optional<int32_t> getZoomMax() const;  ///< of some products a number that holds whatever the camera says
  std::optional<int32_t> getZoomCur() const { return current<int32_t>(ControlID::kZoom); }
  std::optional<int32_t> getZoomDef() const { return initial<int32_t>(ControlID::kZoom); }
  /// Sends the low 16 bits, their sign kept.
  void setZoomCur(int32_t value) { writeControl(cameraControl(ControlID::kZoom), static_cast<int16_t>(value)); }
  std::optional<int32_t> getZoomRelMin() const { return minimum<int32_t>(ControlID::kRelativeZoom); }
  std::optional<int32_t> getZoomRelMax() const { return maximum<int32_t>(ControlID::kRelativeZoom); }
  std::optional<int32_t> getZoomRelCur() const { return current<int32_t>(ControlID::kRelativeZoom); }
  std::optional<int32_t> getZoomRelDef() const { return initial<int32_t>(ControlID::kRelativeZoom); }
  void setZoomRelCur(int32_t value) {
    writeControl(cameraControl(ControlID::kRelativeZoom), static_cast<int16_t>(value));
  }

  std::optional<int16_t> getBrightnessMin() const { return minimum<int16_t>(ControlID::kBrightness); }
  std::optional<int16_t> getBrightnessMax() const { return maximum<int16_t>(ControlID::kBrightness); }
  std::optional<int16_t> getBrightnessCur() const { return current<int16_t>(ControlID::kBrightness); }
  std::optional<int16_t> getBrightnessDefault() const { return initial<int16_t>(ControlID::kBrightness); }
  void setBrightnessCur(int32_t value) { writeControl(cameraControl(ControlID::kBrightness), value); }

  std::optional<uint16_t> getContrastMin() const { return minimum<uint16_t>(ControlID::kContrast); }
  std::optional<uint16_t> getContrastMax() const { return maximum<uint16_t>(ControlID::kContrast); }
  std::optional<uint16_t> getContrastCur() const { return current<uint16_t>(ControlID::kContrast); }
  std::optional<uint16_t> getContrastDefault() const { return initial<uint16_t>(ControlID::kContrast); }
  void setContrastCur(int32_t value) { writeControl(cameraControl(ControlID::kContrast), value); }

  std::optional<uint16_t> getSaturationMin() const { return minimum<uint16_t>(ControlID::kSaturation); }
  std::optional<uint16_t> getSaturationMax() const { return maximum<uint16_t>(ControlID::kSaturation); }
  std::optional<uint16_t> getSaturationCur() const { return current<uint16_t>(ControlID::kSaturation); }
  std::optional<uint16_t> getSaturationDefault() const { return initial<uint16_t>(ControlID::kSaturation); }
  void setSaturationCur(int32_t value) { writeControl(cameraControl(ControlID::kSaturation), value); }

  std::optional<int16_t> getHueMin() const { return minimum<int16_t>(ControlID::kHue); }
  std::optional<int16_t> getHueMax() const { return maximum<int16_t>(ControlID::kHue); }
  std::optional<int16_t> getHueCur() const { return current<int16_t>(ControlID::kHue); }
  std::optional<int16_t> getHueDefault() const { return initial<int16_t>(ControlID::kHue); }
  void setHueCur(int32_t value) { writeControl(cameraControl(ControlID::kHue), value); }

  std::optional<uint16_t> getSharpnessMin() const { return minimum<uint16_t>(ControlID::kSharpness); }
  std::optional<uint16_t> getSharpnessMax() const { return maximum<uint16_t>(ControlID::kSharpness); }
  std::optional<uint16_t> getSharpnessCur() const { return current<uint16_t>(ControlID::kSharpness); }
  std::optional<uint16_t> getSharpnessDefault() const { return initial<uint16_t>(ControlID::kSharpness); }
  void setSharpnessCur(int32_t value) { writeControl(cameraControl(ControlID::kSharpness), value); }

  std::optional<uint16_t> getWhiteBalMin() const { return minimum<uint16_t>(ControlID::kWhiteBalance); }
  std::optional<uint16_t> getWhiteBalMax() const { return maximum<uint16_t>(ControlID::kWhiteBalance); }
  std::optional<uint16_t> getWhiteBalCur() const { return current<uint16_t>(ControlID::kWhiteBalance); }
  std::optional<uint16_t> getWhiteBalDefault() const { return initial<uint16_t>(ControlID::kWhiteBalance); }
  void setWhiteBalCur(int32_t value) { writeControl(cameraControl(ControlID::kWhiteBalance), value); }

  std::optional<uint32_t> getExposureMin() const { return minimum<uint32_t>(ControlID::kExposure); }
  std::optional<uint32_t> getExposureMax() const { return maximum<uint32_t>(ControlID::kExposure); }
  std::optional<uint32_t> getExposureCur() const { return current<uint32_t>(ControlID::kExposure); }
  std::optional<uint32_t> getExposureDefault() const { return initial<uint32_t>(ControlID::kExposure); }
  void setExposureCur(uint32_t value) { writeControl(cameraControl(ControlID::kExposure), value); }

  std::optional<uint16_t> getFocusMin() const { return minimum<uint16_t>(ControlID::kFocus); }
  std::optional<uint16_t> getFocusMax() const { return maximum<uint16_t>(ControlID::kFocus); }
  std::optional<uint16_t> getFocusCur() const { return current<uint16_t>(ControlID::kFocus); }
  std::optional<uint16_t> getFocusDefault() const { return initial<uint16_t>(ControlID::kFocus); }
  void setFocusCur(int32_t value) { writeControl(cameraControl(ControlID::kFocus), value); }

  /// Whether the camera chooses the exposure time (aperture priority); false also when it cannot be asked.
  bool isAutoExposureSet() const { return control(ControlID::kAutoExposure) == 1; }

  /// 1 leaves the exposure to the camera, anything else takes it over; 0 also keeps the camera from
  /// lowering its picture rate in the dark.
  void setAutoExposure(uint8_t isAutomatic) { writeControl(cameraControl(ControlID::kAutoExposure), isAutomatic); }

  /// False also when the camera does not have it.
  bool isSunTrimSet() const { return control(ControlID::kSunTrim).value_or(0) != 0; }
  void setSunTrim(bool isOn) { writeControl(cameraControl(ControlID::kSunTrim), isOn); }

  /// Whether the camera says exactly 1.
  bool isAutoHueSet() const { return control(ControlID::kAutoHue) == 1; }
  bool getAutoHueDefault() const { return control(ControlID::kAutoHue, ControlRequest::kDefault) == 1; }
  void setAutoHue(bool isOn) { writeControl(cameraControl(ControlID::kAutoHue), isOn); }

  std::optional<bool> isAutoFocusSet() const { return current<bool>(ControlID::kAutoFocus); }
  /// The byte as the camera gives it; 0 when it does not.
  uint8_t getAutoFocusDefault() const { return byte(ControlID::kAutoFocus, ControlRequest::kDefault); }
  void setAutoFocusCur(int32_t isOn) { writeControl(cameraControl(ControlID::kAutoFocus), isOn != 0); }

  std::optional<uint8_t> isAutoWhiteBalanceSet() const { return current<uint8_t>(ControlID::kAutoWhiteBalance); }
  /// The byte as the camera gives it; 0 when it does not.
  uint8_t getAutoWhiteBalanceDefault() const { return byte(ControlID::kAutoWhiteBalance, ControlRequest::kDefault); }
  /// Sends the byte as it is.
  void setWhiteBalAuto(uint8_t isOn) { writeControl(cameraControl(ControlID::kAutoWhiteBalance), isOn); }

  /// False only when the camera says that it does not have it.
  bool isAntiFlickerSupported() const;
  /// 0 when the camera does not tell.
  uint8_t getAntiFlickerCur() const { return byte(ControlID::kAntiFlicker, ControlRequest::kCurrent); }
  uint8_t getAntiFlickerDefault() const { return byte(ControlID::kAntiFlicker, ControlRequest::kDefault); }
  void setAntiFlickerCur(int32_t value) { writeControl(cameraControl(ControlID::kAntiFlicker), value); }

  bool isMirrorSupported() const;
  /// None when mirroring is not supported; 0 when the camera does not tell.
  std::optional<uint8_t> getMirrorDef() const { return mirror(ControlRequest::kDefault); }
  std::optional<uint8_t> getMirrorCur() const { return mirror(ControlRequest::kCurrent); }
  void setMirrorCur(int32_t value) { writeControl(cameraControl(ControlID::kMirror), value); }

  /// Whether the camera has a property set, and a property of a set; false when it cannot be asked.
  bool isPropertySupported(capture::PropertySetIdentifier set) const;
  bool isPropertyItemSupported(capture::PropertySetIdentifier set, uint32_t item) const;

  /// Any control by its row: its number, none when the camera does not give it. Switches are 1 or 0,
  /// other bytes as they come. lastError says why it does not.
  std::optional<int64_t> readControl(const CameraControl& control, ControlRequest request) const;
  /// Sends the low bytes of `value`. @return what the capture library answered: 0 taken, 14 the camera
  /// does not have the control, 2 the row does not say where its number lies, else refused; lastError says why.
  int32_t writeControl(const CameraControl& control, int64_t value);

  // The motorised head. Nudges return at once and run one after the other on a queue of their own,
  // 125 ms each, and not at all once the camera has been closed; they hold the device until they have
  // run. Called from one thread.

  void panRelativeLeft();
  void panRelativeRight();
  void tiltRelativeUp();
  void tiltRelativeDown();
  /// Lets the queue go: nudges that wait on it still run, the next one makes a new queue. @return 0
  int16_t relativePanTiltStop(int32_t unused);
  /// Waits until no nudge is waiting or running. Not from a log sink: nudges log.
  void waitForNudges();
  /// Sends the head back to its middle, in six attempts at most, 0.1 s each, during which the calling
  /// thread's run loop is served. @return the capture library's last answer, 0 when the head went.
  int32_t resetPanTiltRel();
  /// Whether the head is to be moved by nudges: it takes relative moves, and no position.
  bool isPTZRelativeSupported() const;
  /// Whether nudges move the head at all, of a camera that takes positions too: then it has the relative
  /// pan and tilt of UVC 1.1 (CT_PANTILT_RELATIVE_CONTROL). False when it cannot be asked.
  bool isNudgeSupported() const;

  // What the camera says of itself; none when it does not.

  /// "Major" and "Minor" of the EEPROM: always answered, with zeros when the camera does not tell.
  VeskInformation getEEPROMInfo() const;
  /// "SensorTech" and "SensorType".
  std::optional<VeskInformation> getSensorInfo() const;
  /// "Major", "Minor" and "BuildNo" of the firmware.
  std::optional<VeskInformation> getFirmwareVersion() const;
  std::optional<int32_t> getFirmwareCRCControl() const;

 private:
  explicit VeskVideoDevice(std::shared_ptr<VeskDeviceInfo> info);

  template <class Number>
  std::optional<Number> number(ControlID id, ControlRequest request) const {
    const auto value = readControl(cameraControl(id), request);
    return value ? std::optional(static_cast<Number>(*value)) : std::nullopt;
  }
  template <class Number>
  std::optional<Number> minimum(ControlID id) const {
    return number<Number>(id, ControlRequest::kMinimum);
  }
  template <class Number>
  std::optional<Number> maximum(ControlID id) const {
    return number<Number>(id, ControlRequest::kMaximum);
  }
  template <class Number>
  std::optional<Number> current(ControlID id) const {
    return number<Number>(id, ControlRequest::kCurrent);
  }
  template <class Number>
  std::optional<Number> initial(ControlID id) const {
    return number<Number>(id, ControlRequest::kDefault);
  }
  std::optional<int64_t> control(ControlID id, ControlRequest request = ControlRequest::kCurrent) const {
    return readControl(cameraControl(id), request);
  }
  uint8_t byte(ControlID id, ControlRequest request) const {
    return static_cast<uint8_t>(control(id, request).value_or(0));
  }
  std::optional<uint8_t> mirror(ControlRequest request) const;
  int64_t otherNumber(const CameraControl& control) const;

  /// Reads a property into `value`, which keeps what the camera does not fill. @return the library's answer.
  int32_t getProperty(ControlRequest request, const capture::PropertySetIdentifier& set, uint32_t number,
                      std::span<uint8_t> value) const;
  int32_t setProperty(const capture::PropertySetIdentifier& set, uint32_t number, std::span<const uint8_t> value) const;
  bool readInformation(uint32_t number, std::span<uint8_t> value) const;

  void nudge(int8_t pan, int8_t tilt, const char* line);
  void performNudge(int8_t pan, int8_t tilt, const char* line);
  void turnHead(int8_t pan, int8_t tilt);

  struct VESK_LOCAL State;
  const std::unique_ptr<State> mState;
};

}  // namespace vesk
