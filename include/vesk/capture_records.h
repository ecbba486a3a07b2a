#pragma once

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <assert.h>
#include <uchar.h>
#endif

/// Records that cross the capture interface, for C (11 and later) and C++. Integers are little-endian,
/// layouts are fixed.

#pragma pack(push, 1)

/// One attached device, as VCI_Enum_Devices and ACI_Enum_Devices fill it.
typedef struct CaptureDeviceRecord {
  char16_t path[1024];  ///< zero-terminated; the identity of the device
  char16_t name[1024];  ///< zero-terminated
  uint32_t reserved;
  uint16_t vendorID;
  uint16_t productID;
  uint16_t revisionID;  ///< cameras only
  uint16_t reserved2;
} CaptureDeviceRecord;
static_assert(sizeof(CaptureDeviceRecord) == 4108 && offsetof(CaptureDeviceRecord, vendorID) == 4100,
              "the layout is fixed");

/// A four-character code, one UTF-16 unit a character, the most significant byte first.
typedef struct VCIPixelFormat {
  char16_t code[13];
} VCIPixelFormat;
static_assert(sizeof(VCIPixelFormat) == 26, "the layout is fixed");

typedef struct VCIFrameSize {
  int32_t width;
  int32_t height;
} VCIFrameSize;
static_assert(sizeof(VCIFrameSize) == 8, "the layout is fixed");

/// A frame interval in ten-millionths of a second.
typedef struct VCIFrameInterval {
  uint32_t interval;
  uint32_t reserved;
} VCIFrameInterval;
static_assert(sizeof(VCIFrameInterval) == 8, "the layout is fixed");

typedef struct VCICaptureParameters {
  uint32_t isH264;
  VCIPixelFormat format;
  uint16_t reserved;
  int32_t width;
  int32_t height;
  uint32_t intervalNumerator;  ///< with the denominator: seconds from picture to picture
  uint32_t intervalDenominator;
  uint32_t reserved2;
  uint32_t bitRate;    ///< bits per second; 0 unless H.264
  uint32_t h264Value;  ///< 24 for H.264, else 0
} VCICaptureParameters;
static_assert(sizeof(VCICaptureParameters) == 60 && offsetof(VCICaptureParameters, width) == 32 &&
                  offsetof(VCICaptureParameters, bitRate) == 52,
              "the layout is fixed");

/// Sound that a microphone can deliver.
typedef struct ACIWaveFormat {
  uint16_t formatCode;
  uint16_t channels;
  uint32_t samplesPerSecond;
  uint16_t bitsPerSample;
  uint16_t reserved;
} ACIWaveFormat;
static_assert(sizeof(ACIWaveFormat) == 12 && offsetof(ACIWaveFormat, bitsPerSample) == 8, "the layout is fixed");

/// The first ten bytes of a wave format: what a microphone is asked for.
typedef struct ACICaptureParameters {
  uint16_t formatCode;
  uint16_t channels;
  uint32_t samplesPerSecond;
  uint16_t bitsPerSample;
} ACICaptureParameters;
static_assert(sizeof(ACICaptureParameters) == 10, "the layout is fixed");

/// One of the camera's property sets.
typedef struct VCIPropertySet {
  uint8_t identifier[16];
  uint32_t value;
} VCIPropertySet;
static_assert(sizeof(VCIPropertySet) == 20, "the layout is fixed");

#pragma pack(pop)
#pragma pack(push, 4)

/// What a video event carries. Addresses are as wide as the machine's.
typedef struct VCI_EVENT_INFO {
  uint32_t event;
  void* context;  ///< as given to VCI_Subscribe_Event
  uint32_t reserved;
  uint32_t length;    ///< bytes of the frame
  void* frame;        ///< valid during the callback, which may rewrite it
  int64_t timestamp;  ///< microseconds of the source's monotonic clock
} VCI_EVENT_INFO;

/// What a sound event carries.
typedef struct ACI_EVENT_INFO {
  uint32_t event;
  void* context;
  uint32_t length;
  void* packet;
  int64_t timestamp;
} ACI_EVENT_INFO;

#pragma pack(pop)

#if UINTPTR_MAX == 0xFFFFFFFF
static_assert(offsetof(VCI_EVENT_INFO, context) == 4 && offsetof(VCI_EVENT_INFO, length) == 12 &&
                  offsetof(VCI_EVENT_INFO, frame) == 16 && offsetof(VCI_EVENT_INFO, timestamp) == 20,
              "the layout is fixed");
static_assert(offsetof(ACI_EVENT_INFO, context) == 4 && offsetof(ACI_EVENT_INFO, length) == 8 &&
                  offsetof(ACI_EVENT_INFO, packet) == 12 && offsetof(ACI_EVENT_INFO, timestamp) == 16,
              "the layout is fixed");
#endif
