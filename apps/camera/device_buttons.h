#pragma once

#include <gtkmm.h>

#include "apps/camera/live_capture.h"

namespace vesk::camera {

/// The button of the header that shows the camera, with a menu of those that there are: action "win.camera".
class CameraButton : public Gtk::MenuButton {
 public:
  CameraButton();
  void show(const LiveCapture& capture);

 private:
  Gtk::Label mName;
};

/// The button of the header that shows the microphone with its level, and a menu: actions "win.microphone",
/// "win.with-sound" and "win.mute".
class MicrophoneButton : public Gtk::MenuButton {
 public:
  MicrophoneButton();
  void show(const LiveCapture& capture);
  /// Decibels, 0 at full scale.
  void setLevel(float level);

 private:
  Gtk::Image mIcon;
  Gtk::Label mName;
  Gtk::LevelBar mLevel;
};

}  // namespace vesk::camera
