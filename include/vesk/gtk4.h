#pragma once

#include <gdkmm/glcontext.h>
#include <gdkmm/surface.h>
#include <gtkmm/eventcontrollermotion.h>
#include <gtkmm/glarea.h>
#include <gtkmm/native.h>
#include <gtkmm/window.h>

#include <memory>
#include <string>

#include <vesk/host_window.h>
#include <vesk/preview_view.h>

/// For hosts with GTK 4, through gtkmm 4. Header only: the library itself needs no toolkit, and <vesk/vesk.h> does not
/// include this.
namespace vesk::gtk4 {

/// A widget that shows a camera: hand its view to a session. Use it as a member or with Gtk::make_managed.
///
/// The view fills the widget and is drawn with OpenGL or OpenGL ES, whichever the display has; without either GTK shows
/// the reason in the widget's place. The widget may be hidden, moved to another window, unrealized and realized again:
/// the view keeps its image and settings. While the widget is not on show nothing is drawn, and a session goes on
/// handing over images.
///
/// Threads: the main thread only, as all of GTK.
class PreviewArea : public Gtk::GLArea, public HostWindow {
 public:
  /// Never null. Others may hold it longer than the widget lives.
  const std::shared_ptr<VeskPreviewView> view = VeskPreviewView::initWithFrame({});

  PreviewArea() { followPointer(); }
  ~PreviewArea() override { view->setWindow(nullptr); }

  bool makeContextCurrent() override {
    make_current();
    if (!has_error()) attach_buffers();
    return !has_error();
  }
  void clearCurrentContext() override { Gdk::GLContext::clear_current(); }
  void present() override {}  // GTK does that
  void requestRedraw() override { queue_render(); }
  bool isKeyWindow() const override {
    const auto* const window = dynamic_cast<const Gtk::Window*>(get_root());
    return !window || window->is_active();
  }

 protected:
  Glib::RefPtr<Gdk::GLContext> on_create_context() override try {  // of OpenGL or OpenGL ES, whichever there is
    auto context = get_native()->get_surface()->create_gl_context();
    context->realize();
    return context;
  } catch (const Glib::Error& error) {
    set_error(Glib::Error(error.domain(), error.code(),  // GTK shows it
                          std::string("The camera's picture cannot be shown: ") + error.what() +
                              ". Install this computer's graphics driver."));
    return {};
  }
  void on_realize() override {
    Gtk::GLArea::on_realize();
    view->setWindow(this);
  }
  void on_unrealize() override {
    view->setWindow(nullptr);
    Gtk::GLArea::on_unrealize();
  }
  void on_resize(int width, int height) override {  // in pixels, on a scaled screen too
    view->setFrame({0, 0, static_cast<float>(width), static_cast<float>(height)});
  }
  bool on_render(const Glib::RefPtr<Gdk::GLContext>& /*context*/) override {
    view->display();
    return true;
  }

 private:
  void followPointer() {
    const auto pointer = Gtk::EventControllerMotion::create();
    const auto follow = [this](double x, double y) {
      const float scale = static_cast<float>(get_scale_factor());
      view->pointerMovedTo({static_cast<float>(x) * scale, view->bounds().height - static_cast<float>(y) * scale});
    };
    pointer->signal_enter().connect(follow);
    pointer->signal_motion().connect(follow);
    pointer->signal_leave().connect([this] { view->pointerLeft(); });
    add_controller(pointer);
  }
};

}  // namespace vesk::gtk4
