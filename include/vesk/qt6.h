#pragma once

#include <QtCore/QEvent>
#include <QtCore/QSize>
#include <QtGui/QMouseEvent>
#include <QtGui/QOpenGLContext>
#include <QtOpenGLWidgets/QOpenGLWidget>

#include <memory>

#include <vesk/host_window.h>
#include <vesk/preview_view.h>

/// For hosts with Qt 6. Header only: the library itself needs no toolkit, and <vesk/vesk.h> does not include this.
namespace vesk::qt6 {

/// A widget that shows a camera: hand its view to a session.
///
/// The view fills the widget and is drawn with what QSurfaceFormat::defaultFormat asks for: OpenGL 2.1, OpenGL 3.2 with
/// any profile, OpenGL ES 2, or later. The widget may be hidden and be moved to another window: the view keeps its
/// image and settings. While the widget is not on show nothing is drawn, and a session goes on handing over images.
///
/// Threads: the main thread only, as all of Qt's widgets.
class PreviewWidget : public QOpenGLWidget, public HostWindow {
 public:
  /// Never null. Others may hold it longer than the widget lives.
  const std::shared_ptr<VeskPreviewView> view = VeskPreviewView::initWithFrame({});

  explicit PreviewWidget(QWidget* parent = nullptr) : QOpenGLWidget(parent) { setMouseTracking(true); }
  ~PreviewWidget() override { view->setWindow(nullptr); }

  bool makeContextCurrent() override {
    makeCurrent();
    return context() && context()->isValid();
  }
  void clearCurrentContext() override { doneCurrent(); }
  void present() override {}  // Qt does that
  void requestRedraw() override { update(); }
  bool isKeyWindow() const override { return isActiveWindow(); }

 protected:
  void initializeGL() override {
    view->setWindow(this);
    const auto leave = [shown = view] { shown->setWindow(nullptr); };  // may come when this widget has gone
    connect(context(), &QOpenGLContext::aboutToBeDestroyed, context(), leave);
  }
  void paintGL() override {
    const QSize pixels = size() * devicePixelRatio();  // of the framebuffer, on a scaled screen too
    view->setFrame({0, 0, static_cast<float>(pixels.width()), static_cast<float>(pixels.height())});
    view->display();
  }
  void mouseMoveEvent(QMouseEvent* event) override {
    const auto scale = static_cast<float>(devicePixelRatio());
    const QPointF at = event->position();
    view->pointerMovedTo(
        {static_cast<float>(at.x()) * scale, view->bounds().height - static_cast<float>(at.y()) * scale});
    QOpenGLWidget::mouseMoveEvent(event);
  }
  void leaveEvent(QEvent* event) override {
    view->pointerLeft();
    QOpenGLWidget::leaveEvent(event);
  }
};

}  // namespace vesk::qt6
