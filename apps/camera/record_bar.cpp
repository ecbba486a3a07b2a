#include "apps/camera/record_bar.h"

#include <array>

#include "apps/camera/text.h"
#include "apps/camera/widgets.h"

namespace vesk::camera {
namespace {

constexpr std::array kTimers{3, 5, 10};  ///< seconds

Glib::RefPtr<Gio::Menu> timerMenu() {
  auto menu = Gio::Menu::create();
  const auto add = [&](const std::string& text, int seconds) {
    const auto item = Gio::MenuItem::create(text, "");
    item->set_action_and_target("win.timer", Glib::Variant<int>::create(seconds));
    menu->append_item(item);
  };
  add(_("At once"), 0);
  for (const int seconds : kTimers)
    add(filled(ngettext("After {} second", "After {} seconds", static_cast<unsigned long>(seconds)), seconds), seconds);
  return menu;
}

}  // namespace

RecordBar::RecordBar() {
  add_css_class("record-bar");
  add_css_class("toolbar");

  mPhoto.set_icon_name("camera-photo-symbolic");
  mPhoto.set_action_name("win.photo");
  mPhoto.add_css_class("photo");
  describe(mPhoto, _("Take a photo; hold for several"));
  const auto hold = Gtk::GestureLongPress::create();
  hold->signal_pressed().connect([this, hold](double, double) {
    hold->set_state(Gtk::EventSequenceState::CLAIMED);
    mHeld.emit(true);
  });
  hold->signal_end().connect([this](Gdk::EventSequence*) { mHeld.emit(false); });
  hold->signal_cancel().connect([this](Gdk::EventSequence*) { mHeld.emit(false); });
  mPhoto.add_controller(hold);

  mRecord.set_action_name("win.record");
  mRecord.add_css_class("record");

  mTimer.set_icon_name("alarm-symbolic");
  mTimer.set_menu_model(timerMenu());
  mTimer.set_direction(Gtk::ArrowType::UP);
  describe(mTimer, _("Timer"));

  mMirror.set_icon_name("object-flip-horizontal-symbolic");
  mMirror.set_action_name("win.mirror");
  describe(mMirror, _("Show as in a mirror"));

  auto* const middle = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 12);
  for (Gtk::Widget* const widget : {static_cast<Gtk::Widget*>(&mTimer), static_cast<Gtk::Widget*>(&mPhoto),
                                    static_cast<Gtk::Widget*>(&mRecord), static_cast<Gtk::Widget*>(&mMirror)}) {
    widget->set_valign(Gtk::Align::CENTER);
    middle->append(*widget);
  }
  mLastItem.set_valign(Gtk::Align::CENTER);
  set_start_widget(mLastItem);
  set_center_widget(*middle);
  setRecording(false);
}

void RecordBar::setRecording(bool isRecording) {
  mRecord.set_icon_name(isRecording ? "media-playback-stop-symbolic" : "media-record-symbolic");
  describe(mRecord, isRecording ? _("Stop recording") : _("Record"));
  if (isRecording)
    mRecord.add_css_class("recording");
  else
    mRecord.remove_css_class("recording");
}

}  // namespace vesk::camera
