#pragma once

#include <cstdint>
#include <optional>

#include <vesk/capture_records.h>
#include <vesk/export.h>
#include <vesk/format_description.h>

/// Format descriptions as the capture library's records, and back.

namespace vesk {

/// Four characters of a code as the library spells them.
VESK_LOCAL VCIPixelFormat pixelFormatRecord(uint32_t codec);
VESK_LOCAL VCIFrameSize frameSizeRecord(const CMVideoFormatDescription& format);

/// What a camera is asked for: pictures at `interval`, in ten-millionths of a second, or 30 a second where that
/// is none or 0; for H.264 also a bit rate that suits the picture's size.
VESK_LOCAL VCICaptureParameters videoCaptureParameters(const CMVideoFormatDescription& format,
                                                       std::optional<uint32_t> interval = std::nullopt);

/// A microphone's wave format as a description, whose format identifier is the wave format's code.
VESK_LOCAL CMAudioFormatDescriptionRef audioFormatDescription(const ACIWaveFormat& format);

/// Sound as a microphone is asked for it and as a movie describes it: the low 16 bits of format
/// identifier, channels and bits, the sample rate without its fraction (0 when it is no 32-bit number).
VESK_LOCAL ACICaptureParameters audioCaptureParameters(const CMAudioFormatDescription& format);

}  // namespace vesk
