#pragma once

#include <gtkmm.h>

namespace vesk::camera {

/// Plays the sound of a shutter, as the desktop's sound theme has it; nothing where there is none.
void playShutterSound(Gtk::Window& window);

}  // namespace vesk::camera
