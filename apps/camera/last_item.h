#pragma once

#include <gtkmm.h>

#include <string>

#include "apps/camera/presence.h"

namespace vesk::camera {

/// The last film or photo as a small picture; a click opens it, its menu the folder.
class LastItem : public Gtk::Box {
 public:
  LastItem();
  /// Shows a file. `picture` is an image file of it; the file itself where it is a photo.
  void show(const std::string& file, const std::string& picture, bool removesPicture);
  void open();
  void showInFolder();
  const std::string& file() const { return mFile; }

 private:
  Gtk::Button mButton;
  Gtk::Image mImage;
  std::string mFile;
  const Presence<LastItem> mPresence{this};
};

/// Shows a file in the file manager, or where there is none that can select it, its folder.
void showInFileManager(const std::string& file);

}  // namespace vesk::camera
