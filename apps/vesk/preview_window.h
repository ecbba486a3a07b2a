#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <vesk/host_window.h>
#include <vesk/preview_view.h>

struct GLFWwindow;
struct GLFWcursor;

namespace vesk::program {

class MainLoop;

/// A window of the desktop with a preview view over its whole area. Main thread only.
class PreviewWindow : public HostWindow {
 public:
  /// What a key was pressed for: a lower-case letter, ' ' or 27 for Esc.
  using KeyHandler = std::function<void(int key)>;

  /// A window of width × height points with `view` in it, kept up to date by `loop`.
  /// @throws Failure when there is no display, or none that can draw.
  PreviewWindow(MainLoop& loop, std::shared_ptr<VeskPreviewView> view, int width, int height, const std::string& title);
  ~PreviewWindow() override;
  PreviewWindow(const PreviewWindow&) = delete;
  PreviewWindow& operator=(const PreviewWindow&) = delete;

  void setKeyHandler(KeyHandler handler) { mKeyHandler = std::move(handler); }
  /// Called when a person closes the window.
  void setCloseHandler(std::function<void()> handler) { mCloseHandler = std::move(handler); }
  void setTitle(const std::string& title);
  /// Keeps a person from making the window smaller than a picture of width × height pixels that is
  /// shown unscaled.
  void holdPicture(int width, int height);

  bool makeContextCurrent() override;
  void clearCurrentContext() override;
  void present() override;
  void setSwapInterval(int32_t interval) override;
  void requestRedraw() override;
  bool isKeyWindow() const override;
  void setCursor(NSCursor cursor) override;

 private:
  static PreviewWindow& of(GLFWwindow* window);
  void installCallbacks();
  void resized();
  void pointerMoved(double x, double y);

  MainLoop& mLoop;
  const std::shared_ptr<VeskPreviewView> mView;
  GLFWwindow* mWindow = nullptr;
  GLFWcursor* mArrow = nullptr;
  KeyHandler mKeyHandler;
  std::function<void()> mCloseHandler;
  std::shared_ptr<bool> mIsThere = std::make_shared<bool>(true);  ///< false for work posted before the window went
};

}  // namespace vesk::program
