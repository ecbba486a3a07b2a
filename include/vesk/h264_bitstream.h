#pragma once

#include <cstdint>
#include <vector>

#include <vesk/export.h>

/// H.264 as a camera sends it and as a movie stores it.
///
/// A camera sends a byte stream (ITU-T H.264, annex B): each NAL unit after the four bytes
/// 00 00 00 01. The three-byte start code is never a boundary here; it stays inside its unit. A movie
/// holds each unit after its length, 32 bits, big-endian (ISO/IEC 14496-15, 5.2.3). Both take four
/// bytes, so a buffer is rewritten in place and keeps its size.
///
/// Nothing here reads or writes outside the buffer it is given, whatever the bytes are.
/// Threads: safe from any thread on buffers of its own.
namespace vesk {

/// Rewrites `length` bytes at `data` from start codes to lengths.
///
/// The first four bytes always become the first length: a buffer without a start code becomes one
/// unit. A first start code at offset 1 to 3 counts as the buffer's beginning: the bytes before it are
/// left out, its unit moves forward over them and ends with as many zero bytes. Prints
/// "*** [Error] in converting to box format!!!" when the lengths do not add up to the buffer, which
/// is so for one that ends in a start code or is shorter than four bytes.
VESK_EXPORT void ConvertStreamToBoxFormat(uint8_t* data, uint32_t length);
/// The same.
VESK_EXPORT void H264ConvertStreamToBoxFormat(uint8_t* data, uint32_t length);

/// Whether the buffer is length-prefixed already: its lengths lead exactly to its end.
///
/// A byte stream does not pass for one: after 00 00 00 01, taken as a length of 1, it would have to
/// go on with its own remaining length, and no unit may contain 00 00 00 to 00 00 02.
VESK_EXPORT bool IsH264BoxFormat(const uint8_t* data, uint32_t length);

/// Rewrites the buffer unless it is length-prefixed already. For everyone who is handed a capture
/// buffer that others may have rewritten before: the delegates of a device see the same bytes one
/// after the other.
VESK_EXPORT void EnsureH264BoxFormat(uint8_t* data, uint32_t length);

/// Looks for the first unit of the given type (0 to 31) in a length-prefixed buffer. Found:
/// `unitLength` becomes its length and `unit` the place of its header byte. False, and both left as
/// they are, when there is none or a length runs past the end before it. Empty units are passed over.
VESK_EXPORT bool FindNALUnit(uint8_t type, const uint8_t* data, uint32_t length, uint32_t* unitLength,
                             const uint8_t** unit);
VESK_EXPORT bool FindNALUnit(uint8_t type, uint8_t* data, uint32_t length, uint32_t* unitLength, uint8_t** unit);

/// The decoder configuration record (ISO/IEC 14496-15, 5.2.4.1, the body of an `avcC` atom) for one
/// sequence and one picture parameter set, each from its header byte on; a length of 0 leaves one out.
/// Profile, constraint flags and level are 0 where the sequence parameter set is too short to hold
/// them. No bytes when a set is longer than the 65,535 bytes that the record can hold.
VESK_EXPORT std::vector<uint8_t> CreateH264ExtensionData(const uint8_t* sps, uint32_t spsLength, const uint8_t* pps,
                                                         uint32_t ppsLength);

}  // namespace vesk
