#pragma once

#include <giomm.h>

#include <string>

namespace vesk::camera {

inline constexpr const char* kApplicationID = "org.vesk.Camera";

/// The folder that holds "share" of this program: of where it was built or installed, wherever that is.
std::string shareFolder();
/// The folder of what is kept for each camera.
std::string configFolder();
/// What is kept from start to start. Where its description is not installed, the defaults, and nothing is kept.
Glib::RefPtr<Gio::Settings> openSettings();

}  // namespace vesk::camera
