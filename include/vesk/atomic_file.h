#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <vesk/export.h>
#include <vesk/ns_error.h>

namespace vesk {

/// Writes a whole file, or nothing: the bytes go to a hidden name beside `path`, are synced, and
/// replace what is at `path` by a rename. After a failure `path` is as it was and nothing is left
/// beside it; `error` (may be null) holds errno and one line for a person. From any thread.
VESK_EXPORT bool writeToFileAtomically(const std::string& path, std::span<const uint8_t> bytes,
                                       NSError* error = nullptr);

}  // namespace vesk
