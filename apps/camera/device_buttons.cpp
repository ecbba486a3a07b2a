#include "apps/camera/device_buttons.h"

#include <algorithm>
#include <cmath>
#include <map>

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

/// A menu takes a single underscore for the mark of a key.
std::string withoutMnemonic(const std::string& name) {
  std::string text;
  for (const char character : name) text.append(character == '_' ? 2 : 1, character);
  return text;
}

/// A menu would be as wide as its longest name, wider than the screen. Cut on the screen only: screen readers have it
/// all.
void cutNamesIn(Gtk::Widget& menu) {
  if (auto* const label = dynamic_cast<Gtk::Label*>(&menu)) {
    label->set_ellipsize(Pango::EllipsizeMode::MIDDLE);
    label->set_max_width_chars(60);
  }
  for (Gtk::Widget* child = menu.get_first_child(); child; child = child->get_next_sibling()) cutNamesIn(*child);
}

void setUpName(Gtk::Label& label) {
  label.set_ellipsize(Pango::EllipsizeMode::END);
  label.set_max_width_chars(24);
}

}  // namespace

/// Devices of one name are numbered.
void DeviceMenu::show(const VeskDeviceList& devices) {
  std::map<std::string, int> count;
  for (const auto& info : devices) ++count[nameOf(*info)];
  std::map<std::string, int> number;
  std::vector<std::pair<std::string, std::string>> wanted;
  for (const auto& info : devices) {
    std::string name = nameOf(*info);
    if (count[name] > 1) name += fmt::format(" ({})", ++number[name]);
    wanted.emplace_back(std::move(name), info->path().value_or(""));
  }
  if (wanted == mShown) return;
  mShown = std::move(wanted);
  mModel->remove_all();
  for (const auto& [name, path] : mShown) {
    const auto item = Gio::MenuItem::create(withoutMnemonic(name), "");
    item->set_action_and_target(mAction, Glib::Variant<Glib::ustring>::create(path));
    mModel->append_item(item);
  }
}

CameraButton::CameraButton() {
  auto* const box = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 6);
  auto* const icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name("camera-web-symbolic");
  setUpName(mName);
  box->append(*icon);
  box->append(mName);
  set_child(*box);
  set_menu_model(mMenu.model());
}

void CameraButton::show(const LiveCapture& capture) {
  mMenu.show(capture.cameras());
  cutNamesIn(*get_popover());
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
  const auto menu = Gio::Menu::create();
  const auto choices = Gio::Menu::create();
  choices->append(_("Mute the _Microphone"), "win.mute");
  choices->append(_("Film With _Sound"), "win.with-sound");
  menu->append_section(mMenu.model());
  menu->append_section(choices);
  set_menu_model(menu);
}

void MicrophoneButton::show(const LiveCapture& capture) {
  mMenu.show(capture.microphones());
  cutNamesIn(*get_popover());
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
