#include <vesk/camera_status_display.h>

#include <epoxy/gl.h>

#include <cstdlib>
#include <utility>

#include <vesk/cg_image.h>
#include <vesk/log.h>
#include <vesk/open_gl_context.h>
#include "platform/foundation/malloc_ptr.h"
#include "platform/foundation/mutex.h"
#include "platform/graphics/drawing_backend.h"
#include "platform/graphics/gl_context_scope.h"

namespace vesk {
namespace {

constexpr uint8_t kHalf = 0x80;

/// One pixel of the picture as the texture has it: alpha, blue, green and red lie in the bytes that
/// the texture takes as blue, green, red and alpha. The first is made of the second, the last is full:
/// nothing shines through, and what was transparent is black.
void writePixel(const uint8_t* rgba, uint8_t* to) {
  to[1] = rgba[2];
  to[2] = rgba[1];
  to[0] = to[1] > kHalf ? 0xFF : 0x00;
  to[3] = 0xFF;
}

}  // namespace

struct CameraStatusDisplay::State {
  void deleteTexture();

  MallocPtr<uint8_t> image;
  uint32_t texture = 0;
  std::weak_ptr<NSOpenGLContext> context;  ///< that the texture lives in
  NSSize size;
  mutable Mutex mutex;
  NSSize viewSize VESK_GUARDED_BY(mutex);
};

CameraStatusDisplay::CameraStatusDisplay() : mState(std::make_unique<State>()) {}

std::shared_ptr<CameraStatusDisplay> CameraStatusDisplay::initWithStatusImage(const std::string& path) {
  auto display = std::make_shared<CameraStatusDisplay>();
  uint8_t* bytes = nullptr;
  display->mState->size = getImage(path, &bytes);
  display->mState->image.reset(bytes);
  if (bytes) display->createTexture(bytes, display->mState->size);
  return display;
}

CameraStatusDisplay::~CameraStatusDisplay() {
  cleanup();
}

NSSize CameraStatusDisplay::getImage(const std::string& path, uint8_t** rawData) {
  Error why;
  const CGImageRef picture = CGImageCreateWithFile(path, &why);
  if (!picture) {
    NSLog(LogLevel::kWarning, "Cannot show the status picture: " + why.what);
    return {};
  }
  const size_t rowBytes = picture->bytesPerRow();
  const auto rows = static_cast<size_t>(picture->height());
  if (!*rawData) *rawData = static_cast<uint8_t*>(std::malloc(rowBytes * rows));
  if (!*rawData) {
    NSLog(LogLevel::kWarning, "Cannot show the status picture " + path + ": memory is short");
    return {};
  }
  for (size_t row = 0; row < rows; ++row) {
    const uint8_t* const from = picture->pixels().data() + (rows - 1 - row) * rowBytes;
    uint8_t* const to = *rawData + row * rowBytes;
    for (size_t i = 0; i < rowBytes; i += 4) writePixel(from + i, to + i);
  }
  return {static_cast<float>(picture->width()), static_cast<float>(picture->height())};
}

void CameraStatusDisplay::createTexture(const uint8_t* buffer, NSSize size) {
  const auto context = CGLGetCurrentContext();
  if (!context || !context->canDraw()) return;
  mState->deleteTexture();
  if (!CGLFitsTexture("a status picture", size)) return;
  mState->context = context;
  mState->texture =
      currentBackend()->storeStatus(static_cast<int32_t>(size.width), static_cast<int32_t>(size.height), buffer);
}

void CameraStatusDisplay::renderStatus() {
  if (!mState->image || mState->texture == 0) return;
  DrawingBackend* const backend = currentBackend();
  if (!backend) return;
  const NSSize area = viewSize();
  const NSSize size = mState->size;
  const float left = (area.width - size.width) * 0.5F;
  const float right = (area.width + size.width) * 0.5F;
  const float bottom = (area.height - size.height) * 0.5F;
  const float top = (area.height + size.height) * 0.5F;
  backend->drawStatus(mState->texture, size, {left, bottom, right - left, top - bottom});
}

void CameraStatusDisplay::cleanup() {
  mState->deleteTexture();
  mState->image.reset();
}

void CameraStatusDisplay::State::deleteTexture() {
  if (const auto current = std::exchange(context, {}).lock()) {
    const CurrentContextScope scope(*current);
    if (scope) glDeleteTextures(1, &texture);
  }
  texture = 0;
}

NSSize CameraStatusDisplay::viewSize() const {
  const MutexLock lock(mState->mutex);
  return mState->viewSize;
}

void CameraStatusDisplay::setViewSize(NSSize size) {
  const MutexLock lock(mState->mutex);
  mState->viewSize = size;
}

}  // namespace vesk
