#pragma once

#include <gtkmm.h>

#include <string>
#include <utility>
#include <vector>

#include "apps/camera/live_capture.h"

namespace vesk::camera {

/// The devices of a menu, each of which is the target of an action. It changes in place, and only when they do: it may
/// be open.
class DeviceMenu {
 public:
  explicit DeviceMenu(std::string action) : mAction(std::move(action)) {}
  void show(const VeskDeviceList& devices);
  const Glib::RefPtr<Gio::Menu>& model() const { return mModel; }

 private:
  const std::string mAction;
  const Glib::RefPtr<Gio::Menu> mModel = Gio::Menu::create();
  std::vector<std::pair<std::string, std::string>> mShown;  ///< names and paths
};

/// The button of the header that shows the camera, with a menu of those that there are: action "win.camera".
class CameraButton : public Gtk::MenuButton {
 public:
  CameraButton();
  void show(const LiveCapture& capture);

 private:
  DeviceMenu mMenu{"win.camera"};
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
  DeviceMenu mMenu{"win.microphone"};
  Gtk::Image mIcon;
  Gtk::Label mName;
  Gtk::LevelBar mLevel;
};

}  // namespace vesk::camera
