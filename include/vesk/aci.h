#pragma once

#include <vesk/capture_records.h>
#include <vesk/export.h>
#include <vesk/vci.h>

/// The sound half of the capture interface. Conventions and status values are those of vci.h; a
/// microphone's handle is closed by VCI_Close_Device.

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
enum : uint32_t {
#else
enum {
#endif
  kACIEventPacket = 71,
  kACIEventDeviceArrived = 72,
  kACIEventDeviceLeft = 73,
};

typedef VCI_HANDLE ACI_HANDLE;
typedef void (*ACI_EVENT_CALLBACK)(void* unused, ACI_EVENT_INFO* info);

VESK_EXPORT int32_t ACI_Init(void);
VESK_EXPORT int32_t ACI_Cleanup(void);
VESK_EXPORT int32_t ACI_Enum_Devices(CaptureDeviceRecord* records, uint32_t* size, uint32_t* count);
VESK_EXPORT int32_t ACI_Subscribe_Event(ACI_HANDLE handle, uint32_t event, ACI_EVENT_CALLBACK callback, void* context);
VESK_EXPORT int32_t ACI_UnSubscribe_Event(ACI_HANDLE handle, uint32_t event);
VESK_EXPORT ACI_HANDLE ACI_Open_Device(const char16_t* path);
VESK_EXPORT int32_t ACI_Enum_Wave_Formats(ACI_HANDLE handle, ACIWaveFormat* formats, uint32_t* size, uint32_t* count);
VESK_EXPORT int32_t ACI_Set_Capture_Parameters(ACI_HANDLE handle, const ACICaptureParameters* parameters);
VESK_EXPORT int32_t ACI_Start_Capture(ACI_HANDLE handle);
VESK_EXPORT int32_t ACI_Stop_Capture(ACI_HANDLE handle);
VESK_EXPORT int32_t ACI_Get_Mic_Mute(ACI_HANDLE handle, uint8_t* mute);
VESK_EXPORT int32_t ACI_Set_Mic_Mute(ACI_HANDLE handle, uint32_t mute);
VESK_EXPORT int32_t ACI_Get_Mic_Volume(ACI_HANDLE handle, uint32_t* volume);
VESK_EXPORT int32_t ACI_Set_Mic_Volume(ACI_HANDLE handle, uint8_t volume);

#ifdef __cplusplus
}
#endif
