#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <vesk/export.h>

namespace vesk {

/// Attributes of a pixel format; kOpenGLPFAColorSize is followed by its value.
enum NSOpenGLPixelFormatAttribute : uint32_t {
  NSOpenGLPFADoubleBuffer = 5,
  NSOpenGLPFAColorSize = 8,
  NSOpenGLPFANoRecovery = 72,
  NSOpenGLPFAAccelerated = 73,
};

/// What a view would like of its surface. The host makes the surface and may look here; a software
/// renderer serves as well as an accelerated one.
class VESK_EXPORT NSOpenGLPixelFormat {
 public:
  /// From a list that ends with 0.
  static std::shared_ptr<const NSOpenGLPixelFormat> initWithAttributes(std::vector<uint32_t> attributes) {
    return std::make_shared<const NSOpenGLPixelFormat>(std::move(attributes));
  }

  const std::vector<uint32_t>& attributes() const { return mAttributes; }

  explicit NSOpenGLPixelFormat(std::vector<uint32_t> attributes) : mAttributes(std::move(attributes)) {}

 private:
  std::vector<uint32_t> mAttributes;
};

}  // namespace vesk
