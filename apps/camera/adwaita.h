#pragma once

#include <adwaita.h>
#include <gtkmm.h>

#include <functional>
#include <string>

namespace vesk::camera {

// Rows of libadwaita, which has no C++ face on Debian 12. A row belongs to the group that it is added to.

/// Calls `handler` at each signal of the object's that hands over nothing of interest, until the object goes.
void onSignal(gpointer object, const char* signal, std::function<void()> handler);

/// A group of rows with a title, in `box`.
AdwPreferencesGroup* addGroup(Gtk::Box& box, const std::string& title, const std::string& description = "");
void addRow(AdwPreferencesGroup* group, GtkWidget* row);
/// A row with a title and, where there is one, a line below it.
AdwActionRow* addActionRow(AdwPreferencesGroup* group, const std::string& title, const std::string& subtitle = "");
/// A row with a choice of texts.
AdwComboRow* addComboRow(AdwPreferencesGroup* group, const std::string& title, const std::string& subtitle = "");
void setChoices(AdwComboRow* row, const std::vector<std::string>& choices);

/// A flat button with an icon, named for people who hear it.
Gtk::Button* makeIconButton(const char* icon, const std::string& name);

}  // namespace vesk::camera
