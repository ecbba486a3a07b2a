#include "apps/camera/message_list.h"

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
  Row row;
  row.text = message.text;
  row.widget = makeRow(message);
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

Gtk::Widget* MessageList::makeRow(const Message& message) {
  const bool isProblem = message.kind == Message::Kind::kProblem;
  // The role of an alert is read aloud when it appears; it is chosen when the widget is made.
  auto* const made = GTK_WIDGET(g_object_new(GTK_TYPE_BOX, "accessible-role", GTK_ACCESSIBLE_ROLE_ALERT, nullptr));
  auto* const row = Gtk::manage(Glib::wrap(GTK_BOX(made)));
  row->set_spacing(8);
  row->set_halign(Gtk::Align::CENTER);
  row->add_css_class("message");
  row->add_css_class("osd");
  if (isProblem) row->add_css_class("problem");
  describeSilently(*row, message.text);

  auto* const icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name(isProblem ? "dialog-warning-symbolic" : "dialog-information-symbolic");
  row->append(*icon);
  auto* const label = Gtk::make_managed<Gtk::Label>(message.text);
  label->set_wrap();
  label->set_xalign(0);
  label->set_hexpand();
  label->set_natural_wrap_mode(Gtk::NaturalWrapMode::NONE);
  label->set_max_width_chars(60);
  row->append(*label);
  for (const auto& action : message.actions) {
    auto* const button = Gtk::make_managed<Gtk::Button>(action.label);
    button->set_valign(Gtk::Align::CENTER);
    button->signal_clicked().connect(action.run);
    row->append(*button);
  }
  auto* const close = Gtk::make_managed<Gtk::Button>();
  close->set_icon_name("window-close-symbolic");
  close->add_css_class("flat");
  close->set_valign(Gtk::Align::CENTER);
  describe(*close, _("Dismiss"));
  close->signal_clicked().connect([this, id = message.id] { remove(id); });
  row->append(*close);
  return row;
}

}  // namespace vesk::camera
