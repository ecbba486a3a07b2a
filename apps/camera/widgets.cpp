#include "apps/camera/widgets.h"

namespace vesk::camera {

void describeSilently(Gtk::Widget& widget, const std::string& text) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget.gobj()), GTK_ACCESSIBLE_PROPERTY_LABEL, text.c_str(), -1);
}

void describe(Gtk::Widget& widget, const std::string& text) {
  describeSilently(widget, text);
  widget.set_tooltip_text(text);
}

}  // namespace vesk::camera
