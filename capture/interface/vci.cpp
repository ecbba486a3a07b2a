#include <vesk/vci.h>

#include <optional>
#include <span>

#include <vesk/four_char_code.h>
#include "capture/interface/interface_support.h"

using namespace vesk::capture;

namespace {

constexpr DeviceKind kVideo = DeviceKind::kVideo;
constexpr int32_t kLargestSide = 16384;
constexpr size_t kCodeUnits = 4;
constexpr uint32_t kLastRequest = 3;

std::optional<uint32_t> readCode(const VCIPixelFormat& format) {
  uint32_t code = 0;
  for (size_t i = 0; i < kCodeUnits; ++i) {
    if (format.code[i] == 0 || format.code[i] > 0xFF) return std::nullopt;
    code = code << 8 | format.code[i];
  }
  return code;
}

void writeCode(uint32_t code, VCIPixelFormat& format) {
  for (size_t i = 0; i < kCodeUnits; ++i) format.code[i] = static_cast<char16_t>(code >> (24 - 8 * i) & 0xFF);
}

/// The sizes of one pixel format; none when the device does not have it.
std::optional<std::vector<FrameSize>> sizesOf(CaptureDevice& device, const VCIPixelFormat& format) {
  const auto code = readCode(format);
  if (!code) return std::nullopt;
  for (VideoFormat& offered : device.videoFormats()) {
    if (offered.codec == *code) return std::move(offered.sizes);
  }
  return std::nullopt;
}

/// What the record asks for; none when no camera could be asked for it.
std::optional<VideoParameters> readParameters(const VCICaptureParameters& record) {
  const auto code = readCode(record.format);
  const auto isSide = [](int32_t side) { return side > 0 && side <= kLargestSide; };
  if (!code || !isSide(record.width) || !isSide(record.height)) return std::nullopt;
  if (record.intervalNumerator == 0 || record.intervalDenominator == 0) return std::nullopt;
  if ((record.isH264 != 0) != (*code == vesk::kCMVideoCodecType_H264)) return std::nullopt;
  return VideoParameters{
      *code, record.width, record.height, record.intervalNumerator, record.intervalDenominator, record.bitRate};
}

PropertySetIdentifier readIdentifier(const VCIPropertySet& set) {
  PropertySetIdentifier identifier;
  std::copy(std::begin(set.identifier), std::end(set.identifier), identifier.begin());
  return identifier;
}

}  // namespace

int32_t VCI_Init(void) {
  return guarded(kVideo, [] { return Library::shared().initialise(kVideo); });
}

int32_t VCI_Cleanup(void) {
  return guarded(kVideo, [] { return Library::shared().cleanUp(kVideo); });
}

int32_t VCI_Enum_Devices(CaptureDeviceRecord* records, uint32_t*, uint32_t* count) {
  return guarded(kVideo, [&] { return enumerateDevices(kVideo, records, count); });
}

int32_t VCI_Subscribe_Event(VCI_HANDLE handle, uint32_t event, VCI_EVENT_CALLBACK callback, void* context) {
  return guarded(kVideo, [&] {
    if (!callback) return missingArgument();
    const auto fill = [](VCI_EVENT_INFO& info, uint8_t* bytes) { info.frame = bytes; };
    return Library::shared().subscribe(kVideo, handle, event,
                                       eventCallback<VCI_EVENT_INFO>(event, callback, context, fill));
  });
}

int32_t VCI_UnSubscribe_Event(VCI_HANDLE handle, uint32_t event) {
  return guarded(kVideo, [&] { return Library::shared().subscribe(kVideo, handle, event, {}); });
}

VCI_HANDLE VCI_Open_Device(const char16_t* path) {
  return openDevice(kVideo, path);
}

int32_t VCI_Close_Device(VCI_HANDLE handle) {
  return guarded(kVideo, [&] { return Library::shared().close(handle); });
}

int32_t VCI_Enum_Pixel_Formats(VCI_HANDLE handle, VCIPixelFormat* formats, uint32_t*, uint32_t* count) {
  return withDevice(kVideo, handle, [&](CaptureDevice& device) {
    return enumerate(device.videoFormats(), formats, count,
                     [](const VideoFormat& format, VCIPixelFormat& record) { writeCode(format.codec, record); });
  });
}

int32_t VCI_Enum_Frame_Sizes(VCI_HANDLE handle, const VCIPixelFormat* format, VCIFrameSize* sizes, uint32_t*,
                             uint32_t* count) {
  return withDevice(kVideo, handle, [&](CaptureDevice& device) {
    if (!format) return missingArgument();
    const auto offered = sizesOf(device, *format);
    if (!offered) return int32_t{kVCIInvalidArgument};
    return enumerate(*offered, sizes, count, [](const FrameSize& size, VCIFrameSize& record) {
      record.width = size.width;
      record.height = size.height;
    });
  });
}

int32_t VCI_Enum_Frame_Intervals(VCI_HANDLE handle, const VCIPixelFormat* format, const VCIFrameSize* frameSize,
                                 VCIFrameInterval* intervals, uint32_t*, uint32_t* count) {
  return withDevice(kVideo, handle, [&](CaptureDevice& device) {
    if (!format || !frameSize) return missingArgument();
    for (const FrameSize& size : sizesOf(device, *format).value_or(std::vector<FrameSize>())) {
      if (size.width != frameSize->width || size.height != frameSize->height) continue;
      return enumerate(size.intervals, intervals, count,
                       [](uint32_t interval, VCIFrameInterval& record) { record.interval = interval; });
    }
    return int32_t{kVCIInvalidArgument};
  });
}

int32_t VCI_Set_Capture_Parameters(VCI_HANDLE handle, const VCICaptureParameters* record) {
  return withOpenDevice(kVideo, handle, [&](OpenDevice& open) {
    if (!record) return missingArgument();
    const auto parameters = readParameters(*record);
    if (!parameters) return int32_t{kVCIInvalidArgument};
    return checkedFormat(open.setUp([&](CaptureDevice& device) { return device.setVideoParameters(*parameters); }),
                         kVideo, open);
  });
}

int32_t VCI_Start_Capture(VCI_HANDLE handle, uint32_t substream) {
  return withOpenDevice(kVideo, handle, [&](OpenDevice& device) { return startDevice(device, substream); });
}

int32_t VCI_Stop_Capture(VCI_HANDLE handle, uint32_t) {
  return withOpenDevice(kVideo, handle, [&](OpenDevice& device) { return device.stop(); });
}

int32_t VCI_Request_Key_Frame(VCI_HANDLE handle) {
  return withDevice(kVideo, handle, [](CaptureDevice& device) {
    device.requestKeyFrame();
    return kVCISuccess;
  });
}

int32_t VCI_Get_Property(VCI_HANDLE handle, uint32_t request, const VCIPropertySet* set, const uint32_t* property,
                         void* value, uint32_t* valueSize, uint32_t, uint32_t) {
  return withDevice(kVideo, handle, [&](CaptureDevice& device) {
    if (!set || !property || !value || !valueSize || request > kLastRequest) return missingArgument();
    const std::span bytes(static_cast<uint8_t*>(value), *valueSize);
    uint32_t size = *valueSize;
    const int32_t status = device.getProperty(request, readIdentifier(*set), *property, bytes, size);
    if (status == kVCISuccess) *valueSize = std::min(size, *valueSize);
    return status;
  });
}

int32_t VCI_Set_Property(VCI_HANDLE handle, const VCIPropertySet* set, const uint32_t* property, const void* value,
                         const uint32_t* valueSize, uint32_t, uint32_t) {
  return withDevice(kVideo, handle, [&](CaptureDevice& device) {
    if (!set || !property || !value || !valueSize) return missingArgument();
    const std::span bytes(static_cast<const uint8_t*>(value), *valueSize);
    return device.setProperty(readIdentifier(*set), *property, bytes);
  });
}

int32_t VCI_Enum_Property_Sets(VCI_HANDLE handle, VCIPropertySet* sets, uint32_t*, uint32_t* count) {
  return withDevice(kVideo, handle, [&](CaptureDevice& device) {
    return enumerate(device.propertySets(), sets, count,
                     [](const PropertySetIdentifier& identifier, VCIPropertySet& record) {
                       std::copy(identifier.begin(), identifier.end(), record.identifier);
                     });
  });
}

int32_t VCI_Enum_Property_Items(VCI_HANDLE handle, const VCIPropertySet* set, uint32_t* items, uint32_t* size,
                                uint32_t* count) {
  return withDevice(kVideo, handle, [&](CaptureDevice& device) {
    if (!set) return missingArgument();
    const int32_t status = enumerate(device.propertyItems(readIdentifier(*set)), items, count,
                                     [](uint32_t item, uint32_t& record) { record = item; });
    if (size && status == kVCIMoreData) *size = *count * uint32_t{sizeof(uint32_t)};  // hosts allocate by it
    return status;
  });
}
