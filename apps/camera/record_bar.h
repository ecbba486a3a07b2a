#pragma once

#include <gtkmm.h>

#include <functional>

#include "apps/camera/last_item.h"

namespace vesk::camera {

/// The bar below the picture: last film or photo, timer, photo, record, mirror. Its buttons are the window's actions.
class RecordBar : public Gtk::CenterBox {
 public:
  RecordBar();
  void setRecording(bool isRecording);
  LastItem& lastItem() { return mLastItem; }
  /// The photo button is held: photos are to be taken until it is let go.
  sigc::signal<void(bool)>& signal_held() { return mHeld; }

 private:
  LastItem mLastItem;
  Gtk::Button mPhoto;
  Gtk::Button mRecord;
  Gtk::MenuButton mTimer;
  Gtk::ToggleButton mMirror;
  sigc::signal<void(bool)> mHeld;
};

}  // namespace vesk::camera
