#include "capture/linux/controls/control_properties.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <utility>

#include <vesk/capture_source.h>
#include <vesk/vci.h>
#include "capture/interface/property_layouts.h"
#include "capture/linux/controls/control_status.h"

namespace vesk::capture {
namespace {

/// What a property's numbers are to its controls.
enum class Conduct {
  kNumber,
  kSwitch,  ///< the same, of a control that is off or on and has no range to report
  kMode,    ///< a bit of ExposureMode
  kSpeed,   ///< a direction and how fast, for each control
  kStep,    ///< the same, for heads that go in steps
  kPress,   ///< a bit for each control
};

using Numbers = std::array<int64_t, 2>;

/// A property and the controls that it is made of. Of several rows for one property, the first counts of
/// which a camera has a control.
struct PropertyRow {
  const PropertyLayout& layout;
  Conduct conduct;
  uint32_t controls[2];  ///< 0: none
};

constexpr PropertyRow kRows[] = {
    {layoutOf(kCameraControlSet, kAutoExposureMode), Conduct::kMode, {V4L2_CID_EXPOSURE_AUTO}},
    {layoutOf(kCameraControlSet, kAutoExposurePriority), Conduct::kSwitch, {V4L2_CID_EXPOSURE_AUTO_PRIORITY}},
    {layoutOf(kCameraControlSet, kExposure), Conduct::kNumber, {V4L2_CID_EXPOSURE_ABSOLUTE}},
    {layoutOf(kCameraControlSet, kFocus), Conduct::kNumber, {V4L2_CID_FOCUS_ABSOLUTE}},
    {layoutOf(kCameraControlSet, kAutoFocus), Conduct::kSwitch, {V4L2_CID_FOCUS_AUTO}},
    {layoutOf(kCameraControlSet, kZoom), Conduct::kNumber, {V4L2_CID_ZOOM_ABSOLUTE}},
    {layoutOf(kCameraControlSet, kRelativeZoom), Conduct::kNumber, {V4L2_CID_ZOOM_CONTINUOUS}},
    {layoutOf(kCameraControlSet, kRelativeZoom), Conduct::kNumber, {V4L2_CID_ZOOM_RELATIVE}},
    {layoutOf(kCameraControlSet, kPanTilt), Conduct::kNumber, {V4L2_CID_PAN_ABSOLUTE, V4L2_CID_TILT_ABSOLUTE}},
    {layoutOf(kCameraControlSet, kRelativePanTilt), Conduct::kSpeed, {V4L2_CID_PAN_SPEED, V4L2_CID_TILT_SPEED}},
    {layoutOf(kCameraControlSet, kRelativePanTilt), Conduct::kStep, {V4L2_CID_PAN_RELATIVE, V4L2_CID_TILT_RELATIVE}},
    {layoutOf(kImageControlSet, kBrightness), Conduct::kNumber, {V4L2_CID_BRIGHTNESS}},
    {layoutOf(kImageControlSet, kContrast), Conduct::kNumber, {V4L2_CID_CONTRAST}},
    {layoutOf(kImageControlSet, kAntiFlicker), Conduct::kNumber, {V4L2_CID_POWER_LINE_FREQUENCY}},
    {layoutOf(kImageControlSet, kHue), Conduct::kNumber, {V4L2_CID_HUE}},
    {layoutOf(kImageControlSet, kSaturation), Conduct::kNumber, {V4L2_CID_SATURATION}},
    {layoutOf(kImageControlSet, kSharpness), Conduct::kNumber, {V4L2_CID_SHARPNESS}},
    {layoutOf(kImageControlSet, kWhiteBalance), Conduct::kNumber, {V4L2_CID_WHITE_BALANCE_TEMPERATURE}},
    {layoutOf(kImageControlSet, kAutoWhiteBalance), Conduct::kSwitch, {V4L2_CID_AUTO_WHITE_BALANCE}},
    {layoutOf(kImageControlSet, kAutoHue), Conduct::kSwitch, {V4L2_CID_HUE_AUTO}},
    {layoutOf(kMirrorSet, kMirror), Conduct::kSwitch, {V4L2_CID_HFLIP}},
    {layoutOf(kRelativeMotionSet, kMotionPanTilt), Conduct::kNumber, {V4L2_CID_PAN_RELATIVE, V4L2_CID_TILT_RELATIVE}},
    {layoutOf(kRelativeMotionSet, kMotionReset), Conduct::kPress, {V4L2_CID_PAN_RESET, V4L2_CID_TILT_RESET}},
};

struct ModeRow {
  uint8_t mode;
  int64_t choice;  ///< of the kernel's menu
};
constexpr ModeRow kModes[] = {{kManualExposure, V4L2_EXPOSURE_MANUAL},
                              {kAutomaticExposure, V4L2_EXPOSURE_AUTO},
                              {kShutterPriority, V4L2_EXPOSURE_SHUTTER_PRIORITY},
                              {kAperturePriority, V4L2_EXPOSURE_APERTURE_PRIORITY}};

/// Whether full automatic stands for aperture priority, which is what is asked for here: cameras whose
/// aperture does not move have one or the other.
bool standsIn(const OpenNode& node) {
  v4l2_querymenu item{};
  item.id = V4L2_CID_EXPOSURE_AUTO;
  item.index = V4L2_EXPOSURE_APERTURE_PRIORITY;
  return node.ask(VIDIOC_QUERYMENU, &item) < 0;
}

void writeMotion(int64_t number, std::span<uint8_t> bytes) {
  bytes[0] = static_cast<uint8_t>((number > 0) - (number < 0));
  bytes[1] = static_cast<uint8_t>(std::abs(number));
}

/// How a control is to move for a direction and a speed, of which 0 leaves the choice to us: the head's own
/// default as far as the range goes that way (kernels that report the slowest speed as the minimum stop there),
/// or, where there is none, as far as both ways go.
int64_t readMotion(std::span<const uint8_t> bytes, Conduct conduct, const v4l2_query_ext_ctrl& control) {
  constexpr int64_t kStepsOfRange = 16;
  const auto direction = static_cast<int8_t>(bytes[0]);
  if (direction == 0) return 0;
  const int64_t reach = std::min(std::abs(control.minimum), std::abs(control.maximum));
  int64_t size = conduct == Conduct::kStep ? reach / kStepsOfRange : reach;
  if (conduct == Conduct::kSpeed && control.default_value != 0)
    size = std::min(std::abs(control.default_value), std::abs(direction > 0 ? control.maximum : control.minimum));
  if (conduct == Conduct::kSpeed && bytes[1] != 0) size = bytes[1];
  size = std::max<int64_t>(size, 1);
  return direction > 0 ? size : -size;
}

}  // namespace

/// A property as the camera has it.
struct ControlProperties::Found {
  const PropertyRow* row = nullptr;
  const OpenNode* node = nullptr;
  std::array<std::optional<v4l2_query_ext_ctrl>, 2> controls;  ///< one of the two may be missing

  /// Looks for the row's controls on the node. @return 0 when it has one, else a negated errno value
  int lookUp() {
    int error = -EINVAL;
    for (size_t i = 0; i < controls.size(); ++i) {
      controls[i].reset();
      if (row->controls[i] == 0) continue;
      v4l2_query_ext_ctrl control{};
      control.id = row->controls[i];
      const int answer = node->ask(VIDIOC_QUERY_EXT_CTRL, &control);
      if (answer == 0 && (control.flags & V4L2_CTRL_FLAG_DISABLED) == 0) {
        // Kernels report the speeds of a zoom without its directions: it goes out as fast as in.
        if (row->layout.number == kRelativeZoom && control.minimum >= 0) control.minimum = -control.maximum;
        controls[i] = control;
        error = 0;
      } else if (answer != 0 && answer != -EINVAL && answer != -ENOTTY) {
        return answer;
      }
    }
    return error;
  }

  int ask(uint32_t request, Numbers& numbers) const {
    for (size_t i = 0; i < controls.size(); ++i) {
      if (!controls[i]) continue;
      const int64_t answers[] = {0, controls[i]->default_value, controls[i]->minimum, controls[i]->maximum};
      numbers[i] = answers[request];
      // What can only be written, as moves and buttons can, is at rest.
      if (request != kRequestCurrent || (controls[i]->flags & V4L2_CTRL_FLAG_WRITE_ONLY) != 0) continue;
      v4l2_ext_control current{};
      current.id = controls[i]->id;
      if (const int error = exchange(VIDIOC_G_EXT_CTRLS, {&current, 1})) return error;
      numbers[i] = current.value;
    }
    return 0;
  }

  /// Sets all controls at once, but for those that cannot be set: a head goes to both positions in one move.
  int write(const Numbers& numbers) const {
    std::array<v4l2_ext_control, 2> settings{};
    size_t count = 0;
    for (size_t i = 0; i < controls.size(); ++i) {
      if (!controls[i] || cannotBeSet(i)) continue;
      if (row->conduct == Conduct::kPress && numbers[i] == 0) continue;
      settings[count].id = controls[i]->id;
      settings[count++].value = static_cast<int32_t>(numbers[i]);
    }
    return exchange(VIDIOC_S_EXT_CTRLS, std::span(settings).first(count));
  }

  void write(const Numbers& numbers, std::span<uint8_t> value) const {
    const ControlType type = row->layout.type;
    for (size_t i = 0; i < controls.size() && row->controls[i] != 0; ++i) {
      switch (row->conduct) {
        case Conduct::kNumber:
        case Conduct::kSwitch:
          writeNumber(type, std::clamp(numbers[i], traitsOf(type).least, traitsOf(type).most), value, i);
          break;
        case Conduct::kMode:
          value[0] = modeOf(numbers[i]);
          break;
        case Conduct::kSpeed:
        case Conduct::kStep:
          writeMotion(std::clamp<int64_t>(numbers[i], -UINT8_MAX, UINT8_MAX), value.subspan(2 * i, 2));
          break;
        case Conduct::kPress:
          value[0] = 0;
          break;
      }
    }
  }

  /// The numbers for a value of the right size; none when they are out of range, other than positions.
  std::optional<Numbers> read(std::span<const uint8_t> value) const {
    Numbers numbers{};
    if (row->conduct == Conduct::kPress) {
      numbers = {value[0] & 1, value[0] >> 1 & 1};
      return value[0] >= 1 && value[0] <= kResetPanAndTilt ? std::optional(numbers) : std::nullopt;
    }
    for (size_t i = 0; i < controls.size(); ++i) {
      if (!controls[i]) continue;
      if (row->conduct == Conduct::kMode) {
        const auto choice = choiceOf(value[0]);
        if (!choice) return std::nullopt;
        numbers[i] = *choice;
      } else if (row->conduct == Conduct::kSpeed || row->conduct == Conduct::kStep) {
        numbers[i] = readMotion(value.subspan(2 * i, 2), row->conduct, *controls[i]);
      } else {
        numbers[i] = readNumber(row->layout.type, value, i);
      }
      // A head is sent to both positions, of which the caller may know only one.
      if (isPosition()) numbers[i] = within(*controls[i], numbers[i]);
      if (numbers[i] < controls[i]->minimum || numbers[i] > controls[i]->maximum) return std::nullopt;
    }
    return numbers;
  }

  /// Whether setting `numbers` would change a control that cannot be set, which some drivers take without
  /// effect. Of a pair, the one beside that which changes may stay as it is.
  bool isRefused(const Numbers& numbers) const {
    if (!cannotBeSet(0) && !cannotBeSet(1)) return false;
    if (!controls[0] || !controls[1] || (cannotBeSet(0) && cannotBeSet(1))) return true;
    const size_t fixed = cannotBeSet(0) ? 0 : 1;
    if (!isPosition()) return numbers[fixed] != 0;
    Numbers now{};
    return ask(kRequestCurrent, now) == 0 && numbers[fixed] != within(*controls[fixed], now[fixed]);
  }

 private:
  static int64_t within(const v4l2_query_ext_ctrl& control, int64_t number) {
    return std::max<int64_t>(std::min<int64_t>(number, control.maximum), control.minimum);
  }
  bool isPosition() const { return row->layout.number == kPanTilt && row->layout.set == kCameraControlSet; }
  bool cannotBeSet(size_t i) const {
    return controls[i] && (controls[i]->flags & (V4L2_CTRL_FLAG_INACTIVE | V4L2_CTRL_FLAG_READ_ONLY)) != 0;
  }

  int exchange(unsigned long request, std::span<v4l2_ext_control> settings) const {
    v4l2_ext_controls list{};
    list.which = V4L2_CTRL_WHICH_CUR_VAL;
    list.count = static_cast<uint32_t>(settings.size());
    list.controls = settings.data();
    return node->ask(request, &list);
  }

  uint8_t modeOf(int64_t choice) const {
    if (choice == V4L2_EXPOSURE_AUTO && standsIn(*node)) return kAperturePriority;
    for (const ModeRow& mode : kModes) {
      if (mode.choice == choice) return mode.mode;
    }
    return 0;
  }

  std::optional<int64_t> choiceOf(uint8_t value) const {
    if (value == kAperturePriority && standsIn(*node)) return V4L2_EXPOSURE_AUTO;
    for (const ModeRow& mode : kModes) {
      if (mode.mode == value) return mode.choice;
    }
    return std::nullopt;
  }
};

ControlProperties::ControlProperties(std::vector<std::shared_ptr<OpenNode>> nodes) : mNodes(std::move(nodes)) {}

int32_t ControlProperties::find(const PropertySetIdentifier& set, uint32_t number, Found& found) const {
  int32_t status = kVCIPropertyNotSupported;
  for (const PropertyRow& row : kRows) {
    if (row.layout.number != number || row.layout.set != set) continue;
    for (const auto& node : mNodes) {
      found = {&row, node.get(), {}};
      const int error = found.lookUp();
      if (error == 0) return kVCISuccess;
      if (error != -EINVAL) {  // who knows whether the camera has it
        controlStatus(*node, error);
        status = kVCIFailed;
      }
    }
  }
  return status;
}

int32_t ControlProperties::get(uint32_t request, const PropertySetIdentifier& set, uint32_t number,
                               std::span<uint8_t> value, uint32_t& valueSize) const {
  Found found;
  if (const int32_t status = find(set, number, found)) return status;
  const size_t size = found.row->layout.size();
  if (request > kRequestMaximum || value.size() < size) return kVCIInvalidArgument;
  const bool isRange = request == kRequestMinimum || request == kRequestMaximum;
  if (isRange && found.row->conduct != Conduct::kNumber) {
    return failed(kVCIFailed, {Cause::kNotSupported, "cameras do not report the range of this control", ""});
  }
  Numbers numbers{};
  if (const int error = found.ask(request, numbers)) return controlStatus(*found.node, error);
  valueSize = static_cast<uint32_t>(size);
  found.write(numbers, value.first(size));
  return kVCISuccess;
}

int32_t ControlProperties::set(const PropertySetIdentifier& set, uint32_t number,
                               std::span<const uint8_t> value) const {
  Found found;
  if (const int32_t status = find(set, number, found)) return status;
  if (value.size() != found.row->layout.size()) return kVCIInvalidArgument;
  const auto numbers = found.read(value);
  if (numbers && found.isRefused(*numbers)) return refusedByMode(*found.node);
  return numbers ? controlStatus(*found.node, found.write(*numbers)) : int32_t{kVCIInvalidArgument};
}

std::vector<PropertySetIdentifier> ControlProperties::sets() const {
  std::vector<PropertySetIdentifier> sets;
  for (const PropertyRow& row : kRows) {
    const bool isThere = std::find(sets.begin(), sets.end(), row.layout.set) != sets.end();
    Found found;
    if (!isThere && find(row.layout.set, row.layout.number, found) == kVCISuccess) sets.push_back(row.layout.set);
  }
  return sets;
}

std::vector<uint32_t> ControlProperties::items(const PropertySetIdentifier& set) const {
  std::vector<uint32_t> items;
  for (const PropertyRow& row : kRows) {
    const bool isThere = std::find(items.begin(), items.end(), row.layout.number) != items.end();
    Found found;
    if (row.layout.set == set && !isThere && find(set, row.layout.number, found) == kVCISuccess)
      items.push_back(row.layout.number);
  }
  return items;
}

}  // namespace vesk::capture
