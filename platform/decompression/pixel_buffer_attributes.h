#pragma once

#include <vesk/property_list.h>

namespace vesk {

// What the pictures of a session are asked to be.
constexpr const char* kCVPixelBufferWidthKey = "Width";                              ///< integer, pixels
constexpr const char* kCVPixelBufferHeightKey = "Height";                            ///< integer, pixels
constexpr const char* kCVPixelBufferOpenGLCompatibilityKey = "OpenGLCompatibility";  ///< boolean

using PixelBufferAttributes = PropertyList::Dictionary;

}  // namespace vesk
