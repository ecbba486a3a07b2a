#pragma once

#include <gtkmm.h>

#include <string>

namespace vesk::camera {

/// What a screen reader says of a widget, and what its tip shows.
void describe(Gtk::Widget& widget, const std::string& text);
/// What a screen reader says of it, without a tip.
void describeSilently(Gtk::Widget& widget, const std::string& text);

}  // namespace vesk::camera
