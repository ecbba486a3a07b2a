#pragma once

#include <vesk/capture_records.h>
#include <vesk/export.h>

/// The video half of the capture interface, for C and C++.
///
/// Every call may be made from any thread. A call answers 0 when it succeeded. Enumerations are
/// made in two calls: without an array they answer 8 when there is something and fill in the count;
/// with an array of that many elements they fill it and answer 0. The array call never fills more
/// than the count it is given, and sets the count to what it filled.

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
enum : int32_t {
#else
enum {
#endif
  kVCISuccess = 0,
  kVCIFailed = 1,  ///< anything that has no number of its own
  kVCIInvalidArgument = 2,
  kVCIInvalidHandle = 3,
  kVCIMoreData = 8,  ///< the sizing call of an enumeration: there is something
  kVCIPropertyNotSupported = 14,
  kVCIBusy = 19,  ///< the device is in use elsewhere
};

#ifdef __cplusplus
enum : uint32_t {
#else
enum {
#endif
  kVCIEventFrame = 1,
  kVCIEventDeviceArrived = 7,
  kVCIEventDeviceLeft = 8,
};

typedef void* VCI_HANDLE;
typedef void (*VCI_EVENT_CALLBACK)(void* unused, VCI_EVENT_INFO* info);

VESK_EXPORT int32_t VCI_Init(void);
VESK_EXPORT int32_t VCI_Cleanup(void);
VESK_EXPORT int32_t VCI_Enum_Devices(CaptureDeviceRecord* records, uint32_t* size, uint32_t* count);
/// Subscribes to an event: on handle 0 to arrivals and departures, on an open device to its frames.
/// A second subscription to the same event of the same handle takes the place of the first.
VESK_EXPORT int32_t VCI_Subscribe_Event(VCI_HANDLE handle, uint32_t event, VCI_EVENT_CALLBACK callback, void* context);
/// Ends a subscription; no callback runs after it has returned, unless it is called from inside one.
VESK_EXPORT int32_t VCI_UnSubscribe_Event(VCI_HANDLE handle, uint32_t event);

/// A handle of the device at `path`, null when there is none or it cannot be opened.
VESK_EXPORT VCI_HANDLE VCI_Open_Device(const char16_t* path);
/// Closes a camera or a microphone: stops it and ends its subscriptions.
VESK_EXPORT int32_t VCI_Close_Device(VCI_HANDLE handle);
VESK_EXPORT int32_t VCI_Enum_Pixel_Formats(VCI_HANDLE handle, VCIPixelFormat* formats, uint32_t* size, uint32_t* count);
VESK_EXPORT int32_t VCI_Enum_Frame_Sizes(VCI_HANDLE handle, const VCIPixelFormat* format, VCIFrameSize* sizes,
                                         uint32_t* size, uint32_t* count);
VESK_EXPORT int32_t VCI_Enum_Frame_Intervals(VCI_HANDLE handle, const VCIPixelFormat* format,
                                             const VCIFrameSize* frameSize, VCIFrameInterval* intervals, uint32_t* size,
                                             uint32_t* count);
VESK_EXPORT int32_t VCI_Set_Capture_Parameters(VCI_HANDLE handle, const VCICaptureParameters* parameters);
/// Starts frames; `substream` is 1 for H.264, else 0. 19 when the device is in use elsewhere.
VESK_EXPORT int32_t VCI_Start_Capture(VCI_HANDLE handle, uint32_t substream);
/// Stops frames; no frame callback runs after it has returned, unless it is called from inside one.
VESK_EXPORT int32_t VCI_Stop_Capture(VCI_HANDLE handle, uint32_t substream);
/// Asks a running H.264 camera for an IDR frame soon. 0 also where the camera cannot be asked: its next one comes in
/// its own time.
VESK_EXPORT int32_t VCI_Request_Key_Frame(VCI_HANDLE handle);

/// Reads a property: `request` 0 current, 1 default, 2 minimum, 3 maximum. 14 when the camera does not have it.
VESK_EXPORT int32_t VCI_Get_Property(VCI_HANDLE handle, uint32_t request, const VCIPropertySet* set,
                                     const uint32_t* property, void* value, uint32_t* valueSize, uint32_t reserved,
                                     uint32_t reserved2);
VESK_EXPORT int32_t VCI_Set_Property(VCI_HANDLE handle, const VCIPropertySet* set, const uint32_t* property,
                                     const void* value, const uint32_t* valueSize, uint32_t reserved,
                                     uint32_t reserved2);
VESK_EXPORT int32_t VCI_Enum_Property_Sets(VCI_HANDLE handle, VCIPropertySet* sets, uint32_t* size, uint32_t* count);
VESK_EXPORT int32_t VCI_Enum_Property_Items(VCI_HANDLE handle, const VCIPropertySet* set, uint32_t* items,
                                            uint32_t* size, uint32_t* count);

#ifdef __cplusplus
}
#endif
