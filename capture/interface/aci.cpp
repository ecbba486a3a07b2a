#include <vesk/aci.h>

#include "capture/interface/interface_support.h"

using namespace vesk::capture;

namespace {

constexpr DeviceKind kAudio = DeviceKind::kAudio;

}  // namespace

int32_t ACI_Init(void) {
  return guarded(kAudio, [] { return Library::shared().initialise(kAudio); });
}

int32_t ACI_Cleanup(void) {
  return guarded(kAudio, [] { return Library::shared().cleanUp(kAudio); });
}

int32_t ACI_Enum_Devices(CaptureDeviceRecord* records, uint32_t*, uint32_t* count) {
  return guarded(kAudio, [&] { return enumerateDevices(kAudio, records, count); });
}

int32_t ACI_Subscribe_Event(ACI_HANDLE handle, uint32_t event, ACI_EVENT_CALLBACK callback, void* context) {
  return guarded(kAudio, [&] {
    if (!callback) return missingArgument();
    const auto fill = [](ACI_EVENT_INFO& info, uint8_t* bytes) { info.packet = bytes; };
    return Library::shared().subscribe(kAudio, handle, event,
                                       eventCallback<ACI_EVENT_INFO>(event, callback, context, fill));
  });
}

int32_t ACI_UnSubscribe_Event(ACI_HANDLE handle, uint32_t event) {
  return guarded(kAudio, [&] { return Library::shared().subscribe(kAudio, handle, event, {}); });
}

ACI_HANDLE ACI_Open_Device(const char16_t* path) {
  return openDevice(kAudio, path);
}

int32_t ACI_Enum_Wave_Formats(ACI_HANDLE handle, ACIWaveFormat* formats, uint32_t*, uint32_t* count) {
  return withDevice(kAudio, handle, [&](CaptureDevice& device) {
    return enumerate(device.waveFormats(), formats, count, [](const WaveFormat& format, ACIWaveFormat& record) {
      record.formatCode = format.formatCode;
      record.channels = format.channels;
      record.samplesPerSecond = format.samplesPerSecond;
      record.bitsPerSample = format.bitsPerSample;
    });
  });
}

int32_t ACI_Set_Capture_Parameters(ACI_HANDLE handle, const ACICaptureParameters* parameters) {
  return withOpenDevice(kAudio, handle, [&](OpenDevice& open) {
    if (!parameters) return missingArgument();
    const WaveFormat format{parameters->formatCode, parameters->channels, parameters->samplesPerSecond,
                            parameters->bitsPerSample};
    return checkedFormat(open.setUp([&](CaptureDevice& device) { return device.setWaveFormat(format); }), kAudio, open);
  });
}

int32_t ACI_Start_Capture(ACI_HANDLE handle) {
  return withOpenDevice(kAudio, handle, [&](OpenDevice& device) { return startDevice(device, 0); });
}

int32_t ACI_Stop_Capture(ACI_HANDLE handle) {
  return withOpenDevice(kAudio, handle, [&](OpenDevice& device) { return device.stop(); });
}

int32_t ACI_Get_Mic_Mute(ACI_HANDLE handle, uint8_t* mute) {
  return withDevice(kAudio, handle, [&](CaptureDevice& device) {
    if (!mute) return missingArgument();
    bool isMuted = false;
    const int32_t status = device.getMute(isMuted);
    if (status == kVCISuccess) *mute = isMuted ? 1 : 0;
    return status;
  });
}

int32_t ACI_Set_Mic_Mute(ACI_HANDLE handle, uint32_t mute) {
  return withDevice(kAudio, handle, [&](CaptureDevice& device) { return device.setMute(mute != 0); });
}

int32_t ACI_Get_Mic_Volume(ACI_HANDLE handle, uint32_t* volume) {
  if (!volume) return kVCIInvalidArgument;
  return withDevice(kAudio, handle, [&](CaptureDevice& device) { return device.getVolume(*volume); });
}

int32_t ACI_Set_Mic_Volume(ACI_HANDLE handle, uint8_t volume) {
  return withDevice(kAudio, handle, [&](CaptureDevice& device) { return device.setVolume(volume); });
}
