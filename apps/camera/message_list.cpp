#include "apps/camera/message_list.h"

#include <utility>

#include "apps/camera/text.h"
#include "apps/camera/widgets.h"

namespace vesk::camera {
namespace {

constexpr unsigned kEndsAfter = 6;  ///< seconds

}  // namespace

MessageList::MessageList() : Gtk::Box(Gtk::Orientation::VERTICAL, 6) {
  set_valign(Gtk::Align::START);
  set_margin(12);
}

void MessageList::show(const Message& message) {
  const auto found = mRows.find(message.id);
  if (found != mRows.end() && found->second.text == message.text) return;
  remove(message.id);
  Row row = makeRow(message);
  append(*row.widget);
  if (message.endsByItself)
    row.timeout =
        Glib::signal_timeout().connect_seconds([this, id = message.id] { return remove(id), false; }, kEndsAfter);
  mRows[message.id] = row;
}

void MessageList::showWhile(bool isSo, const Message& message) {
  if (isSo)
    show(message);
  else
    remove(message.id);
}

void MessageList::remove(const std::string& id) {
  const auto found = mRows.find(id);
  if (found == mRows.end()) return;
  found->second.timeout.disconnect();
  Gtk::Box::remove(*found->second.widget);
  mRows.erase(found);
}

void MessageList::setNarrow(bool isNarrow) {
  if (std::exchange(mIsNarrow, isNarrow) == isNarrow) return;
  for (auto& [id, row] : mRows) placeButtons(row);
}

void MessageList::placeButtons(const Row& row) const {
  row.buttons->set_orientation(mIsNarrow ? Gtk::Orientation::VERTICAL : Gtk::Orientation::HORIZONTAL);
  GtkLayoutManager* const layout = gtk_widget_get_layout_manager(GTK_WIDGET(row.widget->gobj()));
  auto* const place =
      GTK_GRID_LAYOUT_CHILD(gtk_layout_manager_get_layout_child(layout, GTK_WIDGET(row.buttons->gobj())));
  gtk_grid_layout_child_set_column(place, mIsNarrow ? 0 : 2);
  gtk_grid_layout_child_set_row(place, mIsNarrow ? 1 : 0);
  gtk_grid_layout_child_set_column_span(place, mIsNarrow ? 4 : 1);
}

MessageList::Row MessageList::makeRow(const Message& message) {
  const bool isProblem = message.kind == Message::Kind::kProblem;
  // The role of an alert is read aloud when it appears; it is chosen when the widget is made.
  auto* const made = GTK_WIDGET(g_object_new(GTK_TYPE_GRID, "accessible-role", GTK_ACCESSIBLE_ROLE_ALERT, nullptr));
  Row row;
  row.text = message.text;
  row.widget = Gtk::manage(Glib::wrap(GTK_GRID(made)));
  row.widget->set_column_spacing(8);
  row.widget->set_row_spacing(8);
  row.widget->set_halign(Gtk::Align::CENTER);
  row.widget->add_css_class("message");
  row.widget->add_css_class("osd");
  if (isProblem) row.widget->add_css_class("problem");
  describeSilently(*row.widget, message.text);

  auto* const icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name(isProblem ? "dialog-warning-symbolic" : "dialog-information-symbolic");
  row.widget->attach(*icon, 0, 0);
  auto* const label = Gtk::make_managed<Gtk::Label>(message.text);
  label->set_wrap();
  label->set_wrap_mode(Pango::WrapMode::WORD_CHAR);  // names of files may be wider than the window
  label->set_xalign(0);
  label->set_hexpand();
  label->set_natural_wrap_mode(Gtk::NaturalWrapMode::NONE);
  label->set_max_width_chars(60);
  row.widget->attach(*label, 1, 0);
  row.buttons = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  row.buttons->set_valign(Gtk::Align::CENTER);
  row.buttons->set_visible(!message.actions.empty());
  for (const auto& action : message.actions) {
    auto* const button = Gtk::make_managed<Gtk::Button>(action.label);
    button->signal_clicked().connect(action.run);
    row.buttons->append(*button);
  }
  row.widget->attach(*row.buttons, 2, 0);
  placeButtons(row);
  auto* const close = Gtk::make_managed<Gtk::Button>();
  close->set_icon_name("window-close-symbolic");
  close->add_css_class("flat");
  close->set_valign(Gtk::Align::CENTER);
  describe(*close, _("Dismiss"));
  close->signal_clicked().connect([this, id = message.id] { remove(id); });
  row.widget->attach(*close, 3, 0);
  return row;
}

}  // namespace vesk::camera
