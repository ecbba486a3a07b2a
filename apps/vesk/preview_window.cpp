#include "apps/vesk/preview_window.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>
#include <fmt/core.h>

#include <cctype>
#include <cmath>

#include "apps/vesk/host.h"
#include "apps/vesk/program.h"

namespace vesk::program {
namespace {

/// How often the desktop's events are looked at. Pictures do not wait for it.
constexpr std::chrono::milliseconds kEventInterval{15};

std::string lastGlfwError() {
  const char* text = nullptr;
  glfwGetError(&text);
  return text ? text : "no reason given";
}

/// GLFW is set up once and taken down with the process's last window.
void startGlfw() {
  if (glfwInit() == GLFW_TRUE) return;
  throw Failure(kFailed,
                Error{Cause::kNoDisplay, fmt::format("there is no display to show a window on ({})", lastGlfwError()),
                      "Run it on a desktop, or set DISPLAY; \"vesk snapshot\" and \"vesk record\" need no display."});
}

GLFWwindow* makeWindow(int width, int height, const std::string& title) {
  glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, 2);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, 1);
  GLFWwindow* const window = glfwCreateWindow(width, height, title.c_str(), nullptr, nullptr);
  if (window) return window;
  const std::string why = lastGlfwError();
  glfwTerminate();
  throw Failure(kFailed, Error{Cause::kNoDisplay, fmt::format("a window with OpenGL 2.1 could not be opened ({})", why),
                               "Install a graphics driver; on Debian the package libgl1-mesa-dri draws without one."});
}

}  // namespace

PreviewWindow::PreviewWindow(MainLoop& loop, std::shared_ptr<VeskPreviewView> view, int width, int height,
                             const std::string& title)
    : mLoop(loop), mView(std::move(view)) {
  startGlfw();
  mWindow = makeWindow(width, height, title);
  installCallbacks();
  resized();
  mView->setWindow(this);
  mView->setNeedsDisplay(true);
  mLoop.every(kEventInterval, [isThere = std::weak_ptr(mIsThere)] {
    if (isThere.lock()) glfwPollEvents();
  });
}

PreviewWindow::~PreviewWindow() {
  mIsThere.reset();
  mView->setWindow(nullptr);
  if (mArrow) glfwDestroyCursor(mArrow);
  glfwDestroyWindow(mWindow);
  glfwTerminate();
}

void PreviewWindow::installCallbacks() {
  glfwSetWindowUserPointer(mWindow, this);
  glfwSetFramebufferSizeCallback(mWindow, [](GLFWwindow* window, int, int) { of(window).resized(); });
  glfwSetWindowRefreshCallback(mWindow, [](GLFWwindow* window) { of(window).mView->setNeedsDisplay(true); });
  glfwSetWindowCloseCallback(mWindow, [](GLFWwindow* window) {
    if (of(window).mCloseHandler) of(window).mCloseHandler();
  });
  glfwSetCursorPosCallback(mWindow, [](GLFWwindow* window, double x, double y) { of(window).pointerMoved(x, y); });
  glfwSetCursorEnterCallback(mWindow, [](GLFWwindow* window, int entered) {
    if (entered == GLFW_FALSE) of(window).mView->pointerLeft();
  });
  glfwSetCharCallback(mWindow, [](GLFWwindow* window, unsigned int character) {
    if (of(window).mKeyHandler && character < 128) of(window).mKeyHandler(std::tolower(static_cast<int>(character)));
  });
  glfwSetKeyCallback(mWindow, [](GLFWwindow* window, int key, int, int action, int) {
    constexpr int kEscape = 27;
    if (key == GLFW_KEY_ESCAPE && action == GLFW_PRESS && of(window).mKeyHandler) of(window).mKeyHandler(kEscape);
  });
}

PreviewWindow& PreviewWindow::of(GLFWwindow* window) {
  return *static_cast<PreviewWindow*>(glfwGetWindowUserPointer(window));
}

void PreviewWindow::setTitle(const std::string& title) {
  glfwSetWindowTitle(mWindow, title.c_str());
}

void PreviewWindow::holdPicture(int width, int height) {
  if (!VeskPreviewView::showsUnscaled({static_cast<float>(width), static_cast<float>(height)})) return;
  int points = 0;
  glfwGetWindowSize(mWindow, &points, nullptr);
  const double scale = points > 0 ? static_cast<double>(mView->bounds().width) / points : 1.0;
  glfwSetWindowSizeLimits(mWindow, static_cast<int>(std::ceil(width / scale)),
                          static_cast<int>(std::ceil(height / scale)), GLFW_DONT_CARE, GLFW_DONT_CARE);
}

/// The view counts in pixels of the surface, which a scaled screen has more of than of points: so a
/// picture is shown as sharp as it is.
void PreviewWindow::resized() {
  int width = 0;
  int height = 0;
  glfwGetFramebufferSize(mWindow, &width, &height);
  mView->setFrame({0, 0, static_cast<float>(width), static_cast<float>(height)});
  mView->setNeedsDisplay(true);
}

/// The desktop counts points from the top, the view pixels from the bottom.
void PreviewWindow::pointerMoved(double x, double y) {
  int points = 0;
  glfwGetWindowSize(mWindow, &points, nullptr);
  const float scale = points > 0 ? mView->bounds().width / static_cast<float>(points) : 1.0F;
  mView->pointerMovedTo({static_cast<float>(x) * scale, mView->bounds().height - static_cast<float>(y) * scale});
}

bool PreviewWindow::makeContextCurrent() {
  glfwMakeContextCurrent(mWindow);
  return true;
}

void PreviewWindow::clearCurrentContext() {
  glfwMakeContextCurrent(nullptr);
}

void PreviewWindow::present() {
  glfwSwapBuffers(mWindow);
}

void PreviewWindow::setSwapInterval(int32_t interval) {
  glfwSwapInterval(interval);
}

void PreviewWindow::requestRedraw() {
  mLoop.post([view = mView, isThere = std::weak_ptr(mIsThere)] {
    if (isThere.lock()) view->displayIfNeeded();
  });
}

bool PreviewWindow::isKeyWindow() const {
  return glfwGetWindowAttrib(mWindow, GLFW_FOCUSED) == GLFW_TRUE;
}

void PreviewWindow::setCursor(NSCursor) {
  if (!mArrow) mArrow = glfwCreateStandardCursor(GLFW_ARROW_CURSOR);
  glfwSetCursor(mWindow, mArrow);
}

}  // namespace vesk::program
