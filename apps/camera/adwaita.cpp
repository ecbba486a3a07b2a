#include "apps/camera/adwaita.h"

#include <memory>
#include <utility>
#include <vector>

#include "apps/camera/widgets.h"

namespace vesk::camera {

void onSignal(gpointer object, const char* signal, std::function<void()> handler) {
  // Of handlers without arguments and of those of "notify", which have one more, GLib calls this with the data first.
  g_signal_connect_data(
      object, signal, G_CALLBACK(+[](gpointer data) { (*static_cast<std::function<void()>*>(data))(); }),
      new std::function<void()>(std::move(handler)),
      [](gpointer data, GClosure*) { delete static_cast<std::function<void()>*>(data); }, G_CONNECT_SWAPPED);
}

AdwPreferencesGroup* addGroup(Gtk::Box& box, const std::string& title, const std::string& description) {
  auto* const group = ADW_PREFERENCES_GROUP(adw_preferences_group_new());
  adw_preferences_group_set_title(group, Glib::Markup::escape_text(title).c_str());
  if (!description.empty())
    adw_preferences_group_set_description(group, Glib::Markup::escape_text(description).c_str());
  box.append(*Glib::wrap(GTK_WIDGET(group)));
  return group;
}

void addRow(AdwPreferencesGroup* group, GtkWidget* row) {
  adw_preferences_group_add(group, row);
}

AdwActionRow* addActionRow(AdwPreferencesGroup* group, const std::string& title, const std::string& subtitle) {
  auto* const row = ADW_ACTION_ROW(adw_action_row_new());
  adw_preferences_row_set_use_markup(ADW_PREFERENCES_ROW(row), FALSE);
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
  if (!subtitle.empty()) adw_action_row_set_subtitle(row, subtitle.c_str());
  adw_action_row_set_title_lines(row, 0);
  adw_action_row_set_subtitle_lines(row, 0);
  addRow(group, GTK_WIDGET(row));
  return row;
}

AdwComboRow* addComboRow(AdwPreferencesGroup* group, const std::string& title, const std::string& subtitle) {
  auto* const row = ADW_COMBO_ROW(adw_combo_row_new());
  adw_preferences_row_set_use_markup(ADW_PREFERENCES_ROW(row), FALSE);
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
  if (!subtitle.empty()) adw_action_row_set_subtitle(ADW_ACTION_ROW(row), subtitle.c_str());
  adw_action_row_set_subtitle_lines(ADW_ACTION_ROW(row), 0);
  addRow(group, GTK_WIDGET(row));
  return row;
}

void setChoices(AdwComboRow* row, const std::vector<std::string>& choices) {
  std::vector<const char*> texts;
  texts.reserve(choices.size() + 1);
  for (const std::string& choice : choices) texts.push_back(choice.c_str());
  texts.push_back(nullptr);
  GtkStringList* const list = gtk_string_list_new(texts.data());
  adw_combo_row_set_model(row, G_LIST_MODEL(list));
  g_object_unref(list);
}

Gtk::Button* makeIconButton(const char* icon, const std::string& name) {
  auto* const button = Gtk::make_managed<Gtk::Button>();
  button->set_icon_name(icon);
  button->set_valign(Gtk::Align::CENTER);
  button->add_css_class("flat");
  describe(*button, name);
  return button;
}

}  // namespace vesk::camera
