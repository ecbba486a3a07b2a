#pragma once

#include <cstdint>
#include <span>

namespace vesk::h264 {

/// Rewrites a camera's buffer in place from four-byte start codes to four-byte lengths; neither reads nor writes
/// outside it.
///
/// The first four bytes always become the first length: a buffer without a start code becomes one
/// unit. A first start code at offset 1 to 3 counts as the buffer's beginning: the bytes before it are
/// left out, its unit moves forward over them and ends with as many zero bytes. Prints
/// "*** [Error] in converting to box format!!!" when the lengths do not add up to the buffer, which
/// is so for one that ends in a start code or is shorter than four bytes.
void convertToLengths(std::span<uint8_t> buffer);

/// Whether the buffer is length-prefixed already: its lengths lead exactly to its end. Never so for an empty one.
///
/// A byte stream does not pass for one: after 00 00 00 01, taken as a length of 1, it would have to
/// go on with its own remaining length, and no unit may contain 00 00 00 to 00 00 02.
bool isLengthPrefixed(std::span<const uint8_t> buffer);

/// Rewrites the buffer unless it is length-prefixed already. For everyone who is handed a capture
/// buffer that others may have rewritten before: the delegates of a device see the same bytes one
/// after the other.
void ensureLengths(std::span<uint8_t> buffer);

}  // namespace vesk::h264
