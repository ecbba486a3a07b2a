#pragma once

#include <gtkmm.h>

#include <vector>

#include "apps/camera/camera_controls_model.h"

namespace vesk::camera {

/// Buttons that turn the camera's head and zoom: held they go on, pressed by key or by a helper they go a step.
class HeadPad : public Gtk::Box {
 public:
  explicit HeadPad(CameraControlsModel& model);

  /// Shows the buttons for what the camera can do.
  void update();
  /// Whether the picture is shown as a mirror shows it: left and right change places, so that the picture goes where
  /// the arrow points.
  void setMirrored(bool isMirrored) { mIsMirrored = isMirrored; }
  /// Ctrl with an arrow, plus or minus, wherever the focus is in the window, but for where a text is typed.
  void addKeys(Gtk::Widget& window);

 private:
  HeadTurn asSeen(HeadTurn move) const;
  Gtk::Button* addButton(HeadTurn move, const char* icon, const std::string& name, int column, int row);
  bool keyPressed(guint key, Gdk::ModifierType modifiers);

  CameraControlsModel& mModel;
  bool mIsMirrored = false;
  Gtk::Grid mArrows;
  Gtk::Grid mLens;
  Gtk::Button* mCentre = nullptr;
  std::vector<std::pair<HeadTurn, Gtk::Button*>> mButtons;
};

}  // namespace vesk::camera
