// Shows the first camera live in a window of GLFW. Escape or closing the window ends it.
//
//   preview_glfw [SECONDS]
#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <vesk/capture_choices.h>
#include <vesk/device_manager.h>
#include <vesk/host_window.h>
#include <vesk/preview_session.h>
#include <vesk/preview_view.h>
#include <vesk/run_loop.h>
#include <vesk/video_device.h>

namespace {

using std::chrono::steady_clock;

/// What the view needs of a window.
class Window : public vesk::HostWindow {
 public:
  explicit Window(GLFWwindow* window) : mWindow(window) {}

  bool makeContextCurrent() override {
    glfwMakeContextCurrent(mWindow);
    return true;
  }
  void clearCurrentContext() override { glfwMakeContextCurrent(nullptr); }
  void present() override { glfwSwapBuffers(mWindow); }
  void setSwapInterval(int32_t interval) override { glfwSwapInterval(interval); }
  void requestRedraw() override {}  // the loop below asks the view in each of its turns

 private:
  GLFWwindow* const mWindow;
};

}  // namespace

int main(int argc, char** argv) {
  const auto cameras = vesk::VeskDeviceManager::getSharedInstance()->getVideoDeviceList();
  if (cameras->empty()) return std::fprintf(stderr, "no camera was found\n"), 1;
  const auto camera = vesk::VeskVideoDevice::initWithDeviceInfo(cameras->front());
  if (camera->openDevice() != 0) return std::fprintf(stderr, "%s\n", camera->lastError().what.c_str()), 1;
  if (const auto error = vesk::chooseVideoFormat(*camera, {}, vesk::CapturePurpose::kPreview).error; error)
    return std::fprintf(stderr, "%s\n", error.what.c_str()), 1;

  if (glfwInit() == GLFW_FALSE) return std::fprintf(stderr, "there is no display\n"), 1;
  glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, 2);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, 1);
  GLFWwindow* const glfwWindow = glfwCreateWindow(800, 600, "Camera", nullptr, nullptr);
  if (!glfwWindow) return std::fprintf(stderr, "a window with OpenGL 2.1 could not be opened\n"), 1;
  Window window(glfwWindow);
  const auto view = vesk::VeskPreviewView::initWithFrame({0, 0, 800, 600});
  view->setWindow(&window);

  const auto session = vesk::VeskPreviewSession::initWithDevice(camera, nullptr);
  const int status = session->startSessionWithPreview(view);
  const auto end = steady_clock::now() + std::chrono::seconds(argc > 1 ? std::atoi(argv[1]) : 3600);
  const auto loop = vesk::NSRunLoop::currentRunLoop();
  while (status == 0 && steady_clock::now() < end && glfwWindowShouldClose(glfwWindow) == GLFW_FALSE &&
         glfwGetKey(glfwWindow, GLFW_KEY_ESCAPE) != GLFW_PRESS) {
    loop->runUntilDate(steady_clock::now() + std::chrono::milliseconds(5));  // hands new images to the view
    glfwPollEvents();
    int width = 0, height = 0;
    glfwGetFramebufferSize(glfwWindow, &width, &height);
    view->setFrame({0, 0, static_cast<float>(width), static_cast<float>(height)});
    view->displayIfNeeded();
  }

  session->closeSession();
  view->setWindow(nullptr);
  glfwTerminate();
  vesk::VeskDeviceManager::destroy();
  std::printf("%llu frames shown\n", static_cast<unsigned long long>(session->statistics().shown));
  return status;
}
