#include "apps/camera/app_settings.h"

#include <glibmm.h>

#include <filesystem>
#include <system_error>

namespace vesk::camera {

std::string shareFolder() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? "/usr/share" : program.parent_path().parent_path() / "share";
}

std::string configFolder() {
  return Glib::build_filename(Glib::get_user_config_dir(), "vesk-camera");
}

/// Looks beside the program before the system's folders, so that it runs from where it was built.
Glib::RefPtr<Gio::Settings> openSettings() {
  auto source = Gio::SettingsSchemaSource::get_default();
  const std::string own = shareFolder() + "/glib-2.0/schemas";
  if (std::filesystem::exists(own + "/gschemas.compiled")) {
    try {
      source = Gio::SettingsSchemaSource::create(own, false, source);
    } catch (const Glib::Error& error) {
      g_warning("%s cannot be read: %s", own.c_str(), error.what());
    }
  }
  const auto schema = source ? source->lookup(kApplicationID, true) : nullptr;
  if (!schema) {
    g_printerr("vesk-camera: the description of its settings (%s) is not installed; install the program anew\n",
               kApplicationID);
    return {};
  }
  return Glib::wrap(g_settings_new_full(schema->gobj(), nullptr, nullptr));
}

}  // namespace vesk::camera
