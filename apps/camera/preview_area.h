#pragma once

#include <gtkmm.h>

#include <memory>

#include <vesk/host_window.h>
#include <vesk/preview_view.h>

namespace vesk::camera {

/// The live picture. It may be shown as in a mirror, which changes neither films nor photos.
class PreviewArea : public Gtk::GLArea, public HostWindow {
 public:
  const std::shared_ptr<VeskPreviewView> view = VeskPreviewView::initWithFrame({});

  void setMirrored(bool isMirrored) {
    mIsMirrored = isMirrored;
    queue_draw();
  }

  bool makeContextCurrent() override {
    make_current();
    if (!has_error()) attach_buffers();
    return !has_error();
  }
  void clearCurrentContext() override { Gdk::GLContext::clear_current(); }
  void present() override {}  // GTK does that
  void requestRedraw() override { queue_render(); }

 protected:
  Glib::RefPtr<Gdk::GLContext> on_create_context() override {  // of OpenGL or OpenGL ES, whichever there is
    return get_native()->get_surface()->create_gl_context();
  }
  void on_realize() override { Gtk::GLArea::on_realize(), view->setWindow(this); }
  void on_unrealize() override { view->setWindow(nullptr), Gtk::GLArea::on_unrealize(); }
  void on_resize(int width, int height) override {  // in pixels, on a scaled screen too
    view->setFrame({0, 0, static_cast<float>(width), static_cast<float>(height)});
  }
  bool on_render(const Glib::RefPtr<Gdk::GLContext>& /*context*/) override { return view->display(), true; }
  void snapshot_vfunc(const Glib::RefPtr<Gtk::Snapshot>& snapshot) override {
    if (mIsMirrored) {
      const graphene_point_t right{static_cast<float>(get_width()), 0};
      gtk_snapshot_translate(snapshot->gobj(), &right);
      gtk_snapshot_scale(snapshot->gobj(), -1, 1);
    }
    Gtk::GLArea::snapshot_vfunc(snapshot);
  }

 private:
  bool mIsMirrored = false;
};

}  // namespace vesk::camera
