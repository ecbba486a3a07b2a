#pragma once

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <array>
#include <vector>

#include <vesk/host_window.h>
#include "tests/support/pictures.h"

namespace vesk::test {

/// What is drawn in the current context, from the lower left corner: red, green, blue and alpha of each pixel.
inline std::vector<uint8_t> drawnPixels(int width, int height, int left = 0, int bottom = 0) {
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
  glReadPixels(left, bottom, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
  return pixels;
}
inline Colour drawnColour(int x, int y) {
  const auto pixel = drawnPixels(1, 1, x, y);
  return {pixel[0], pixel[1], pixel[2]};
}

/// A window for views without a display: an EGL context of Mesa's software renderer with a surface in
/// memory, laid out as a window's. Counts what the view asks of it.
class OffscreenHost : public HostWindow {
 public:
  enum class Profile { kCompatibility, kCore, kES1, kES2, kES3 };

  explicit OffscreenHost(NSSize size, Profile profile = Profile::kCompatibility) {
    const bool isES = profile != Profile::kCompatibility && profile != Profile::kCore;
    const EGLint version = profile == Profile::kES1 ? 1 : profile == Profile::kES2 ? 2 : 3;
    std::vector<EGLint> wanted{EGL_CONTEXT_OPENGL_DEBUG, EGL_TRUE};
    if (isES) wanted.insert(wanted.end(), {EGL_CONTEXT_MAJOR_VERSION, version});
    if (profile == Profile::kCore)
      wanted.insert(wanted.end(), {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 2,
                                   EGL_CONTEXT_OPENGL_PROFILE_MASK, EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT});
    wanted.push_back(EGL_NONE);
    EGLDisplay const shown = display();
    eglBindAPI(isES ? EGL_OPENGL_ES_API : EGL_OPENGL_API);
    mContext = eglCreateContext(shown, config(), EGL_NO_CONTEXT, wanted.data());
    resize(size);
  }
  ~OffscreenHost() override {
    OffscreenHost::clearCurrentContext();
    eglDestroySurface(display(), mSurface);
    eglDestroyContext(display(), mContext);
  }
  OffscreenHost(const OffscreenHost&) = delete;
  OffscreenHost& operator=(const OffscreenHost&) = delete;

  /// A new surface; what was drawn is gone.
  void resize(NSSize size) {
    clearCurrentContext();
    if (mSurface != EGL_NO_SURFACE) eglDestroySurface(display(), mSurface);
    const std::array<EGLint, 5> attributes{EGL_WIDTH, static_cast<EGLint>(size.width), EGL_HEIGHT,
                                           static_cast<EGLint>(size.height), EGL_NONE};
    mSurface = eglCreatePbufferSurface(display(), config(), attributes.data());
  }

  bool makeContextCurrent() override { return eglMakeCurrent(display(), mSurface, mSurface, mContext) == EGL_TRUE; }
  void clearCurrentContext() override { eglMakeCurrent(display(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT); }
  void updateContext() override { ++updates; }
  void present() override { ++presents; }
  bool keepsContents() const override { return keeps; }
  void setSwapInterval(int32_t interval) override { swapInterval = interval; }
  float backingScale() const override { return scale; }
  void requestRedraw() override { ++redrawRequests; }
  void setAcceptsMouseMovedEvents(bool accepts) override { acceptsMoves = accepts; }
  bool isKeyWindow() const override { return isKey; }
  void setCursor(NSCursor /*cursor*/) override { ++cursorsSet; }

  bool keeps = true;
  float scale = 1;
  bool isKey = true;
  int updates = 0;
  int presents = 0;
  int redrawRequests = 0;
  int cursorsSet = 0;
  int32_t swapInterval = 0;
  bool acceptsMoves = false;

 private:
  static EGLDisplay display() {
    static EGLDisplay const display = [] {
      EGLDisplay made = eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
      eglInitialize(made, nullptr, nullptr);
      return made;
    }();
    return display;
  }

  /// 8 bits a colour and no more: the deepest come first when they are asked for.
  static EGLConfig config() {
    constexpr EGLint kAll = EGL_OPENGL_BIT | EGL_OPENGL_ES_BIT | EGL_OPENGL_ES2_BIT | EGL_OPENGL_ES3_BIT;
    constexpr std::array<EGLint, 7> kWanted{
        EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, kAll, EGL_ALPHA_SIZE, 8, EGL_NONE};
    std::array<EGLConfig, 128> configs{};
    EGLint count = 0;
    eglChooseConfig(display(), kWanted.data(), configs.data(), static_cast<EGLint>(configs.size()), &count);
    for (EGLint i = 0; i < count; ++i) {
      EGLint red = 0;
      eglGetConfigAttrib(display(), configs.at(static_cast<size_t>(i)), EGL_RED_SIZE, &red);
      if (red == 8) return configs.at(static_cast<size_t>(i));
    }
    return nullptr;
  }

  EGLContext mContext = EGL_NO_CONTEXT;
  EGLSurface mSurface = EGL_NO_SURFACE;
};

}  // namespace vesk::test
