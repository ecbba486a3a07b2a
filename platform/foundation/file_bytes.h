#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <vesk/error.h>

namespace vesk {

/// The whole of the plain file at `path`, without ever waiting for a pipe or a device. None when it
/// cannot be read or has more than `most` bytes; `why` (may be null) then tells.
std::optional<std::vector<uint8_t>> fileBytes(const std::string& path, size_t most, Error* why = nullptr);

}  // namespace vesk
