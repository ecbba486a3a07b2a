#include "apps/camera/device_buttons.h"

#include <algorithm>
#include <cmath>

#include "apps/camera/text.h"
#include "apps/camera/widgets.h"

namespace vesk::camera {
namespace {

constexpr float kLowestLevel = -60.0F;
/// What is louder is close to being cut off.
constexpr double kLoud = 0.95;

std::string nameOf(const VeskDeviceInfo& info) {
  return info.name().value_or(_("Without a name"));
}

template <class Device>
std::string nameOf(const std::shared_ptr<Device>& device, const char* none) {
  return device ? nameOf(*device->deviceInfo()) : none;
}

void addDevices(Gio::Menu& menu, const VeskDeviceList& devices, const char* action) {
  for (const auto& info : devices) {
    const auto item = Gio::MenuItem::create(nameOf(*info), "");
    item->set_action_and_target(action, Glib::Variant<Glib::ustring>::create(info->path().value_or("")));
    menu.append_item(item);
  }
}

void setUpName(Gtk::Label& label) {
  label.set_ellipsize(Pango::EllipsizeMode::END);
  label.set_max_width_chars(24);
}

}  // namespace

CameraButton::CameraButton() {
  auto* const box = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 6);
  auto* const icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name("camera-web-symbolic");
  setUpName(mName);
  box->append(*icon);
  box->append(mName);
  set_child(*box);
}

void CameraButton::show(const LiveCapture& capture) {
  const auto menu = Gio::Menu::create();
  addDevices(*menu, capture.cameras(), "win.camera");
  set_menu_model(menu);
  const std::string name = nameOf(capture.camera(), capture.cameras().empty() ? _("No camera") : _("Camera is off"));
  mName.set_text(name);
  describe(*this, filled(_("Camera: {}"), name));
}

MicrophoneButton::MicrophoneButton() {
  auto* const box = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 6);
  auto* const names = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 2);
  names->set_valign(Gtk::Align::CENTER);
  setUpName(mName);
  mName.set_xalign(0);
  mLevel.set_min_value(0);
  mLevel.set_max_value(1);
  mLevel.set_size_request(48, -1);
  mLevel.add_offset_value("low", kLoud);  // of one colour as long as nothing is cut off
  mLevel.add_offset_value("high", kLoud);
  mLevel.add_offset_value("full", 1);
  mLevel.add_css_class("sound");
  describeSilently(mLevel, _("Level of the microphone"));
  names->append(mName);
  names->append(mLevel);
  box->append(mIcon);
  box->append(*names);
  set_child(*box);
}

void MicrophoneButton::show(const LiveCapture& capture) {
  const auto menu = Gio::Menu::create();
  const auto devices = Gio::Menu::create();
  addDevices(*devices, capture.microphones(), "win.microphone");
  const auto choices = Gio::Menu::create();
  choices->append(_("Mute the _Microphone"), "win.mute");
  choices->append(_("Film With _Sound"), "win.with-sound");
  menu->append_section(devices);
  menu->append_section(choices);
  set_menu_model(menu);
  const bool isMuted = capture.microphone() && capture.isMuted();
  const bool isOff = !capture.isWithSound();
  const std::string name = nameOf(capture.microphone(), isOff ? _("Without sound") : _("No microphone"));
  mIcon.set_from_icon_name(isMuted || !capture.microphone() ? "microphone-disabled-symbolic"
                                                            : "audio-input-microphone-symbolic");
  mName.set_text(name);
  describe(*this, filled(isMuted ? _("Microphone: {}, muted") : _("Microphone: {}"), name));
  if (!capture.microphone()) mLevel.set_value(0);
}

void MicrophoneButton::setLevel(float level) {
  mLevel.set_value(std::isfinite(level) ? std::clamp(1.0 - level / kLowestLevel, 0.0, 1.0) : 0.0);
}

}  // namespace vesk::camera
