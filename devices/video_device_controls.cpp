#include <algorithm>
#include <iterator>

#include <vesk/vci.h>
#include <vesk/video_device.h>
#include "capture/interface/property_layouts.h"
#include "devices/enumeration.h"
#include "devices/property_record.h"

// Every control goes through readControl and writeControl, by its row of the table.

namespace vesk {
namespace {

constexpr size_t kLargestValue = 8;

struct ZoomRow {
  uint16_t productID;
  int32_t maximum;
};
constexpr ZoomRow kZoomMaxima[] = {{0x7A01, 300}, {0x7A02, 319}, {0x7A03, 3}, {0x7A04, 3}};

/// Where a control's number stands among those of its property's value.
size_t placeOf(const CameraControl& control) {
  return control.place == ControlPlace::kSecondOfPosition || control.place == ControlPlace::kSecondOfMove ? 1 : 0;
}

int64_t readNumber(const CameraControl& control, std::span<const uint8_t> value) {
  const int64_t number = capture::readNumber(control.type, value, placeOf(control));
  if (control.type != ControlType::kExposureMode) return number;
  return (number & capture::kAperturePriority) != 0 ? 1 : 0;
}

/// Whether the row's numbers lie in its value, and that in our buffer: a host may make a row itself.
bool isSound(const CameraControl& control) {
  const size_t numbers = control.place == ControlPlace::kAlone ? 1 : 2;
  return control.size <= kLargestValue && numbers * capture::traitsOf(control.type).width <= control.size;
}

Error unsoundRow() {
  return {Cause::kWrongUse, "the control's row does not say where its number lies", ""};
}

void writeNumber(const CameraControl& control, int64_t number, std::span<uint8_t> value) {
  if (control.type == ControlType::kExposureMode)
    number = number == 1 ? capture::kAperturePriority : capture::kManualExposure;
  capture::writeNumber(control.type, number, value, placeOf(control));
}

}  // namespace

VCIPropertySet propertySetRecord(const capture::PropertySetIdentifier& set) {
  VCIPropertySet record{};
  std::copy(set.begin(), set.end(), record.identifier);
  record.value = 2;
  return record;
}

int32_t VeskVideoDevice::getProperty(ControlRequest request, const capture::PropertySetIdentifier& set, uint32_t number,
                                     std::span<uint8_t> value) const {
  const VCIPropertySet record = propertySetRecord(set);
  auto size = static_cast<uint32_t>(value.size());
  return answered(
      VCI_Get_Property(mHandle, static_cast<uint32_t>(request), &record, &number, value.data(), &size, 0, 0));
}

int32_t VeskVideoDevice::setProperty(const capture::PropertySetIdentifier& set, uint32_t number,
                                     std::span<const uint8_t> value) const {
  const VCIPropertySet record = propertySetRecord(set);
  const auto size = static_cast<uint32_t>(value.size());
  return answered(VCI_Set_Property(mHandle, &record, &number, value.data(), &size, 0, 0));
}

std::optional<int64_t> VeskVideoDevice::readControl(const CameraControl& control, ControlRequest request) const {
  if (!isSound(control)) return failed(kVCIInvalidArgument, unsoundRow()), std::nullopt;
  uint8_t bytes[kLargestValue] = {};
  const std::span value(bytes, control.size);
  if (getProperty(request, control.set, control.number, value) != kVCISuccess) return std::nullopt;
  return readNumber(control, value);
}

int32_t VeskVideoDevice::writeControl(const CameraControl& control, int64_t number) {
  if (!isSound(control)) return failed(kVCIInvalidArgument, unsoundRow());
  uint8_t bytes[kLargestValue] = {};
  const std::span value(bytes, control.size);
  writeNumber(control, number, value);
  if (control.place != ControlPlace::kAlone)
    capture::writeNumber(control.type, otherNumber(control), value, 1 - placeOf(control));
  const int32_t status = setProperty(control.set, control.number, value);
  if (control.type != ControlType::kExposureMode || number != 0) return status;
  // Whether the camera can also be kept from slowing down is of no matter to whoever set the mode.
  const Error why = lastError();
  const uint8_t keepsRate = 0;
  setProperty(control.set, capture::kAutoExposurePriority, {&keepsRate, 1});
  return failed(status, why);
}

/// What is sent beside a number that shares its property's value: where the head points in the other
/// direction, 0 when it reports none; no move.
int64_t VeskVideoDevice::otherNumber(const CameraControl& control) const {
  switch (control.place) {
    case ControlPlace::kFirstOfPosition:
      return getTiltCur().value_or(0);
    case ControlPlace::kSecondOfPosition:
      return getPanCur().value_or(0);
    case ControlPlace::kAlone:
    case ControlPlace::kFirstOfMove:
    case ControlPlace::kSecondOfMove:
      break;
  }
  return 0;
}

std::optional<int32_t> VeskVideoDevice::getZoomMax() const {
  const auto read = number<int32_t>(ControlID::kZoom, ControlRequest::kMaximum);
  for (const ZoomRow& row : kZoomMaxima)
    if (row.productID == mDeviceInfo->productID()) return row.maximum;
  return read;
}

bool VeskVideoDevice::isAntiFlickerSupported() const {
  const CameraControl& control = cameraControl(ControlID::kAntiFlicker);
  uint8_t value = 0;
  return getProperty(ControlRequest::kCurrent, control.set, control.number, {&value, 1}) != kVCIPropertyNotSupported;
}

bool VeskVideoDevice::isMirrorSupported() const {
  return isPropertyItemSupported(capture::kMirrorSet, capture::kMirror);
}

std::optional<uint8_t> VeskVideoDevice::mirror(ControlRequest request) const {
  return isMirrorSupported() ? std::optional(byte(ControlID::kMirror, request)) : std::nullopt;
}

bool VeskVideoDevice::isPropertySupported(capture::PropertySetIdentifier set) const {
  const auto sets = enumerateRecords<VCIPropertySet>([this](VCIPropertySet* records, uint32_t* size, uint32_t* count) {
    return VCI_Enum_Property_Sets(mHandle, records, size, count);
  });
  return std::any_of(sets.begin(), sets.end(), [&set](const VCIPropertySet& record) {
    return std::equal(set.begin(), set.end(), std::begin(record.identifier));
  });
}

bool VeskVideoDevice::isPropertyItemSupported(capture::PropertySetIdentifier set, uint32_t item) const {
  if (!isPropertySupported(set)) return false;
  const VCIPropertySet record = propertySetRecord(set);
  const auto items = enumerateRecords<uint32_t>([&](uint32_t* numbers, uint32_t* size, uint32_t* count) {
    return VCI_Enum_Property_Items(mHandle, &record, numbers, size, count);
  });
  return std::find(items.begin(), items.end(), item) != items.end();
}

}  // namespace vesk
