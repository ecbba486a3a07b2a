#include "capture/simulated/simulated_properties.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>

#include <vesk/vci.h>
#include "capture/interface/property_layouts.h"

namespace vesk::capture {

/// Which models have a property.
enum class Feature {
  kAll,
  kMirroring,
  kSunTrimming,
  kHueMode,
  kPosition,
  kRelativeMotion,
  kFirstInformation,
  kAlternateInformation
};

/// What setting a property does besides keeping the value.
enum class Effect {
  kNone,
  kReadOnly,
  kMode,      ///< only the values of exposure modes
  kPosition,  ///< the head goes there
  kZoomBy,
  kTurn,
  kMoveBy,
  kReset,
};

/// A property as all models that have it have it.
struct SimulatedPropertyRow {
  const PropertyLayout& layout;
  int32_t minimum;
  int32_t maximum;
  int32_t initial;
  bool reportsRange;
  Feature feature = Feature::kAll;
  Effect effect = Effect::kNone;
  std::optional<std::pair<const PropertySetIdentifier*, uint32_t>> automatic = std::nullopt;  ///< its mode
  std::array<uint8_t, 4> bytes = {};                                                          ///< of a read-only one
};

namespace {

constexpr int32_t kDegree = 3600;  // arc seconds
constexpr int32_t kHeadLimit = 35 * kDegree;
constexpr int32_t kTurnStep = 4 * kDegree;
constexpr int32_t kMoveUnits = 64;  // of a relative move, in a degree
constexpr int32_t kWidestZoom = 100, kClosestZoom = 500;
constexpr size_t kMostMoves = 256;

constexpr int32_t kNeutralContrast = 32, kNeutralSaturation = 64, kNeutralExposure = 312, kNeutralWhite = 4600;

using Mode = std::pair<const PropertySetIdentifier*, uint32_t>;
constexpr Mode kExposureMode{&kCameraControlSet, kAutoExposureMode};
constexpr Mode kFocusMode{&kCameraControlSet, kAutoFocus};
constexpr Mode kWhiteMode{&kImageControlSet, kAutoWhiteBalance};
constexpr Mode kHueMode{&kImageControlSet, kAutoHue};

// clang-format off
const SimulatedPropertyRow kRows[] = {
    {layoutOf(kCameraControlSet, kAutoExposureMode), kManualExposure, kAperturePriority, kAperturePriority, false, Feature::kAll, Effect::kMode},
    {layoutOf(kCameraControlSet, kAutoExposurePriority), 0, 1, 0, false},
    {layoutOf(kCameraControlSet, kExposure), 3, 2500, kNeutralExposure, true, Feature::kAll, Effect::kNone, kExposureMode},
    {layoutOf(kCameraControlSet, kFocus), 50, 5000, 600, true, Feature::kAll, Effect::kNone, kFocusMode},
    {layoutOf(kCameraControlSet, kAutoFocus), 0, 1, 1, false},
    {layoutOf(kCameraControlSet, kZoom), kWidestZoom, kClosestZoom, kWidestZoom, true, Feature::kPosition},
    {layoutOf(kCameraControlSet, kRelativeZoom), -100, 100, 0, true, Feature::kPosition, Effect::kZoomBy},
    {layoutOf(kCameraControlSet, kPanTilt), -kHeadLimit, kHeadLimit, 0, true, Feature::kPosition, Effect::kPosition},
    {layoutOf(kCameraControlSet, kRelativePanTilt), -1, 1, 0, false, Feature::kRelativeMotion, Effect::kTurn},
    {layoutOf(kImageControlSet, kBrightness), -64, 64, 0, true},
    {layoutOf(kImageControlSet, kContrast), 0, 64, kNeutralContrast, true},
    {layoutOf(kImageControlSet, kAntiFlicker), 0, 2, 1, false},
    {layoutOf(kImageControlSet, kHue), -18000, 18000, 0, true, Feature::kAll, Effect::kNone, kHueMode},
    {layoutOf(kImageControlSet, kSaturation), 0, 128, kNeutralSaturation, true},
    {layoutOf(kImageControlSet, kSharpness), 0, 7, 3, true},
    {layoutOf(kImageControlSet, kWhiteBalance), 2800, 6500, kNeutralWhite, true, Feature::kAll, Effect::kNone, kWhiteMode},
    {layoutOf(kImageControlSet, kAutoWhiteBalance), 0, 1, 1, false},
    {layoutOf(kImageControlSet, kAutoHue), 0, 1, 0, false, Feature::kHueMode},
    {layoutOf(kMirrorSet, kMirror), 0, 1, 0, false, Feature::kMirroring},
    {layoutOf(kSunTrimSet, kSunTrim), 0, 1, 0, false, Feature::kSunTrimming},
    {layoutOf(kRelativeMotionSet, kMotionPanTilt), -35 * kMoveUnits, 35 * kMoveUnits, 0, true, Feature::kRelativeMotion, Effect::kMoveBy},
    {layoutOf(kRelativeMotionSet, kMotionReset), 1, kResetPanAndTilt, 0, false, Feature::kRelativeMotion, Effect::kReset},
    {layoutOf(kDeviceInformationSet, kFirmwareVersion), 0, 0, 0, false, Feature::kFirstInformation, Effect::kReadOnly, {}, {5, 2, 0x34, 0x12}},
    {layoutOf(kDeviceInformationSet, kFirmwareCRCControl), 0, 0, 0, false, Feature::kFirstInformation, Effect::kReadOnly, {}, {0x2A, 0x1C}},
    {layoutOf(kDeviceInformationSet, kEEPROMInfo), 0, 0, 0, false, Feature::kFirstInformation, Effect::kReadOnly, {}, {1, 7, 0, 0}},
    {layoutOf(kDeviceInformationSet, kSensorInfo), 0, 0, 0, false, Feature::kFirstInformation, Effect::kReadOnly, {}, {2, 9}},
    {layoutOf(kAlternateInformationSet, kFirmwareVersion), 0, 0, 0, false, Feature::kAlternateInformation, Effect::kReadOnly, {}, {1, 3, 0x10, 0}},
    {layoutOf(kAlternateInformationSet, kFirmwareCRCControl), 0, 0, 0, false, Feature::kAlternateInformation, Effect::kReadOnly, {}, {0x77, 0x05}},
    {layoutOf(kAlternateInformationSet, kEEPROMInfo), 0, 0, 0, false, Feature::kAlternateInformation, Effect::kReadOnly, {}, {2, 1, 0, 0}},
    {layoutOf(kAlternateInformationSet, kSensorInfo), 0, 0, 0, false, Feature::kAlternateInformation, Effect::kReadOnly, {}, {1, 4}},
};
// clang-format on

size_t indexOf(const SimulatedPropertyRow& row) {
  return static_cast<size_t>(&row - kRows);
}

int sign(int32_t number) {
  return (number > 0) - (number < 0);
}

std::string hex(std::span<const uint8_t> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) text += {kDigits[byte >> 4], kDigits[byte & 15]};
  return text;
}

std::vector<uint8_t> unhex(const std::string& text) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 2)
    bytes.push_back(static_cast<uint8_t>(std::strtoul(text.substr(i, 2).c_str(), nullptr, 16)));
  return bytes;
}

}  // namespace

SimulatedProperties::SimulatedProperties(const SimulatedModel& model) : mModel(model) {
  MutexLock lock(mMutex);
  reset();
}

void SimulatedProperties::setModel(const SimulatedModel& model) {
  MutexLock lock(mMutex);
  mModel = model;
  reset();
}

void SimulatedProperties::reset() {
  mValues.clear();
  for (const SimulatedPropertyRow& row : kRows) {
    Numbers numbers{};
    std::fill_n(numbers.begin(), row.layout.count, row.initial);
    mValues.push_back(numbers);
  }
  mPan = mTilt = 0;
  mMoves.clear();
}

bool SimulatedProperties::has(const SimulatedPropertyRow& row) const {
  switch (row.feature) {
    case Feature::kAll:
      return true;
    case Feature::kMirroring:
      return mModel.hasMirror;
    case Feature::kSunTrimming:
      return mModel.hasSunTrim;
    case Feature::kHueMode:
      return mModel.hasAutoHue;
    case Feature::kPosition:
      return mModel.hasPosition;
    case Feature::kRelativeMotion:
      return mModel.hasRelativeMotion;
    case Feature::kFirstInformation:
      return mModel.information == SimulatedModel::Information::kFirstSet;
    case Feature::kAlternateInformation:
      return mModel.information == SimulatedModel::Information::kAlternateSet;
  }
  return false;
}

const SimulatedPropertyRow* SimulatedProperties::find(const PropertySetIdentifier& set, uint32_t number) const {
  for (const SimulatedPropertyRow& row : kRows)
    if (row.layout.number == number && row.layout.set == set && has(row)) return &row;
  return nullptr;
}

SimulatedProperties::Numbers& SimulatedProperties::valueOf(const SimulatedPropertyRow& row) {
  return mValues[indexOf(row)];
}

int32_t SimulatedProperties::numberIn(const PropertySetIdentifier& set, uint32_t number) {
  const SimulatedPropertyRow* const row = find(set, number);
  return row ? valueOf(*row)[0] : 0;
}

bool SimulatedProperties::isOn(const PropertySetIdentifier& set, uint32_t number) {
  const int32_t value = numberIn(set, number);
  return Mode(&set, number) == kExposureMode ? value == kAperturePriority : value != 0;
}

int32_t SimulatedProperties::get(uint32_t request, const PropertySetIdentifier& set, uint32_t number,
                                 std::span<uint8_t> value, uint32_t& valueSize) {
  MutexLock lock(mMutex);
  const SimulatedPropertyRow* const row = find(set, number);
  if (!row) return kVCIPropertyNotSupported;
  if (request > kRequestMaximum || value.size() < row->layout.size()) return kVCIInvalidArgument;
  valueSize = row->layout.size();
  const bool isRange = request == kRequestMinimum || request == kRequestMaximum;
  if (row->effect == Effect::kReadOnly) {
    if (request != kRequestCurrent) return kVCIFailed;
    std::copy_n(row->bytes.begin(), valueSize, value.begin());
    return kVCISuccess;
  }
  if (isRange && !row->reportsRange) return kVCIFailed;
  for (uint32_t i = 0; i < row->layout.count; ++i) {
    const int32_t numbers[] = {valueOf(*row)[i], row->initial, row->minimum, row->maximum};
    writeNumber(row->layout.type, numbers[request], value, i);
  }
  return kVCISuccess;
}

int32_t SimulatedProperties::set(const PropertySetIdentifier& set, uint32_t number, std::span<const uint8_t> value) {
  int32_t status = kVCIPropertyNotSupported;
  {
    MutexLock lock(mMutex);
    const SimulatedPropertyRow* const row = find(set, number);
    if (!row) return kVCIPropertyNotSupported;
    if (row->automatic && isOn(*row->automatic->first, row->automatic->second)) return kVCIFailed;
    status = store(*row, value);
  }
  if (status == kVCISuccess && mChanged) mChanged();
  return status;
}

int32_t SimulatedProperties::store(const SimulatedPropertyRow& row, std::span<const uint8_t> value) {
  if (row.effect == Effect::kReadOnly) return kVCIFailed;
  if (value.size() != row.layout.size()) return kVCIInvalidArgument;
  Numbers numbers{};
  for (uint32_t i = 0; i < row.layout.count; ++i) {
    const int64_t number = readNumber(row.layout.type, value, i);
    numbers[i] = static_cast<int32_t>(std::min<int64_t>(number, INT32_MAX));
    // A head goes as far as it can.
    if (row.effect == Effect::kPosition) numbers[i] = std::clamp(numbers[i], row.minimum, row.maximum);
    if (numbers[i] < row.minimum || numbers[i] > row.maximum) return kVCIInvalidArgument;
  }
  if (row.effect == Effect::kMode && numbers[0] != kManualExposure && numbers[0] != kAperturePriority)
    return kVCIInvalidArgument;
  act(row, numbers);
  return kVCISuccess;
}

void SimulatedProperties::act(const SimulatedPropertyRow& row, const Numbers& numbers) {
  switch (row.effect) {
    case Effect::kNone:
    case Effect::kReadOnly:
    case Effect::kMode:
      valueOf(row) = numbers;
      return;
    case Effect::kPosition:
      return moveHead(HeadMove::Kind::kPosition, numbers[0], numbers[1]);
    case Effect::kZoomBy:
      if (const SimulatedPropertyRow* const zoom = find(kCameraControlSet, kZoom))
        valueOf(*zoom)[0] = std::clamp(valueOf(*zoom)[0] + numbers[0], kWidestZoom, kClosestZoom);
      return;
    case Effect::kTurn: {
      valueOf(row) = numbers;
      const bool isStop = numbers[0] == 0 && numbers[2] == 0;
      // Pan 1 turns clockwise as seen from above, tilt 1 up (UVC 1.5, 4.2.2.1.15).
      return moveHead(isStop ? HeadMove::Kind::kStop : HeadMove::Kind::kTurn, mPan + sign(numbers[0]) * kTurnStep,
                      mTilt + sign(numbers[2]) * kTurnStep);
    }
    case Effect::kMoveBy:
      return moveHead(HeadMove::Kind::kStep, mPan + numbers[0] * kDegree / kMoveUnits,
                      mTilt + numbers[1] * kDegree / kMoveUnits);
    case Effect::kReset:
      return moveHead(HeadMove::Kind::kReset, (numbers[0] & 1) != 0 ? 0 : mPan, (numbers[0] & 2) != 0 ? 0 : mTilt);
  }
}

void SimulatedProperties::moveHead(HeadMove::Kind kind, int32_t pan, int32_t tilt) {
  mPan = std::clamp(pan, -kHeadLimit, kHeadLimit);
  mTilt = std::clamp(tilt, -kHeadLimit, kHeadLimit);
  if (const SimulatedPropertyRow* const position = find(kCameraControlSet, kPanTilt))
    valueOf(*position) = {mPan, mTilt};
  if (mMoves.size() == kMostMoves) mMoves.erase(mMoves.begin());
  mMoves.push_back({kind, mPan, mTilt});
}

std::vector<PropertySetIdentifier> SimulatedProperties::sets() {
  MutexLock lock(mMutex);
  std::vector<PropertySetIdentifier> found;
  for (const SimulatedPropertyRow& row : kRows)
    if (has(row) && std::find(found.begin(), found.end(), row.layout.set) == found.end())
      found.push_back(row.layout.set);
  return found;
}

std::vector<uint32_t> SimulatedProperties::items(const PropertySetIdentifier& set) {
  MutexLock lock(mMutex);
  std::vector<uint32_t> numbers;
  for (const SimulatedPropertyRow& row : kRows)
    if (has(row) && row.layout.set == set) numbers.push_back(row.layout.number);
  return numbers;
}

ImageSettings SimulatedProperties::imageSettings() {
  constexpr double kBrightestShare = 0.5;  // of the range, at the end of the scale
  constexpr double kWarmthOfKelvin = 0.00005;
  MutexLock lock(mMutex);
  ImageSettings image;
  image.brightness = kBrightestShare * numberIn(kImageControlSet, kBrightness) / 64;
  image.contrast = double{1} * numberIn(kImageControlSet, kContrast) / kNeutralContrast;
  image.saturation = double{1} * numberIn(kImageControlSet, kSaturation) / kNeutralSaturation;
  if (!isOn(kImageControlSet, kAutoHue)) image.hueDegrees = numberIn(kImageControlSet, kHue) / 100.0;
  if (!isOn(kCameraControlSet, kAutoExposureMode))
    image.gain = double{1} * numberIn(kCameraControlSet, kExposure) / kNeutralExposure;
  // White is what a light of that temperature shows as white: the same scene looks warmer for a bluer one.
  if (!isOn(kImageControlSet, kAutoWhiteBalance))
    image.warmth = kWarmthOfKelvin * (numberIn(kImageControlSet, kWhiteBalance) - kNeutralWhite);
  if (mModel.hasPosition) image.zoom = double{1} * numberIn(kCameraControlSet, kZoom) / kWidestZoom;
  image.pan = mPan;
  image.tilt = mTilt;
  image.isMirrored = numberIn(kMirrorSet, kMirror) != 0;
  return image;
}

std::vector<HeadMove> SimulatedProperties::moves() {
  MutexLock lock(mMutex);
  return mMoves;
}

std::string SimulatedProperties::settings() {
  MutexLock lock(mMutex);
  std::string text = "head " + std::to_string(mPan) + " " + std::to_string(mTilt) + "\n";
  for (const SimulatedPropertyRow& row : kRows) {
    // A turn that was not stopped goes on, as a real head's would.
    const bool isSetting = row.effect == Effect::kNone || row.effect == Effect::kMode || row.effect == Effect::kTurn;
    if (!isSetting || !has(row)) continue;
    std::vector<uint8_t> bytes(row.layout.size());
    for (uint32_t i = 0; i < row.layout.count; ++i) writeNumber(row.layout.type, valueOf(row)[i], bytes, i);
    text += hex(row.layout.set) + " " + std::to_string(row.layout.number) + " " + hex(bytes) + "\n";
  }
  return text;
}

void SimulatedProperties::applySettings(const std::string& text) {
  MutexLock lock(mMutex);
  std::istringstream words(text);
  std::string set;
  while (words >> set) {
    std::string first;
    std::string second;
    if (!(words >> first >> second)) return;
    if (set == "head") {
      moveHead(HeadMove::Kind::kPosition, std::atoi(first.c_str()), std::atoi(second.c_str()));
      continue;
    }
    PropertySetIdentifier identifier{};
    const auto bytes = unhex(set);
    if (bytes.size() != identifier.size()) continue;
    std::copy(bytes.begin(), bytes.end(), identifier.begin());
    const auto number = static_cast<uint32_t>(std::strtoul(first.c_str(), nullptr, 10));
    if (const SimulatedPropertyRow* const row = find(identifier, number)) store(*row, unhex(second));
  }
}

}  // namespace vesk::capture
