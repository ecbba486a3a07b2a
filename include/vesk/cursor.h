#pragma once

namespace vesk {

/// Shapes of the pointer that a view may ask for.
enum class NSCursor { kArrow };

}  // namespace vesk
