#pragma once

#include <gtkmm.h>

#include <vesk/gtk4.h>

namespace vesk::camera {

/// The live picture. It may be shown as in a mirror, which changes neither films nor photos.
class LivePicture : public gtk4::PreviewArea {
 public:
  void setMirrored(bool isMirrored) {
    mIsMirrored = isMirrored;
    queue_draw();
  }

 protected:
  void snapshot_vfunc(const Glib::RefPtr<Gtk::Snapshot>& snapshot) override {
    if (mIsMirrored) {
      const graphene_point_t right{static_cast<float>(get_width()), 0};
      gtk_snapshot_translate(snapshot->gobj(), &right);
      gtk_snapshot_scale(snapshot->gobj(), -1, 1);
    }
    gtk4::PreviewArea::snapshot_vfunc(snapshot);
  }

 private:
  bool mIsMirrored = false;
};

}  // namespace vesk::camera
