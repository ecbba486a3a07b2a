#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/export.h"

namespace vesk {

/// The whole of the plain file at `path`; none when it cannot be read or has more than `most` bytes.
VESK_LOCAL std::optional<std::vector<uint8_t>> fileBytes(const std::string& path, size_t most);

}  // namespace vesk
