#include "apps/camera/application.h"

#include <adwaita.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include <vesk/capture_host.h>
#include <vesk/version.h>
#include "apps/camera/app_settings.h"
#include "apps/camera/main_window.h"
#include "apps/camera/style.h"
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

/// What the keys do, for GTK and for the window that shows them.
struct KeyBinding {
  const char* keys;
  const char* action;
  const char* title;
};
constexpr std::array kKeyBindings{
    KeyBinding{"<Control>r", "win.record", N_("Record, and stop")},
    KeyBinding{"<Control>p", "win.photo", N_("Take a photo")},
    KeyBinding{"<Control>m", "win.mirror", N_("Show as in a mirror")},
    KeyBinding{"<Control>u", "win.mute", N_("Mute the microphone")},
    KeyBinding{"<Control>k", "win.cameras", N_("Choose a camera")},
    KeyBinding{"<Control>j", "win.microphones", N_("Choose a microphone")},
    KeyBinding{"F9", "win.show-settings", N_("Picture settings")},
    KeyBinding{"F11", "win.full-screen", N_("Full screen")},
    KeyBinding{"Escape", "win.leave-full-screen", N_("Leave full screen, stop the timer")},
    KeyBinding{"F5", "win.restart", N_("Start the camera anew")},
    KeyBinding{"<Control>o", "win.open-last", N_("Open the last film or photo")},
    KeyBinding{"<Control>d", "win.show-in-folder", N_("Show it in its folder")},
    KeyBinding{"F1", "win.doctor", N_("Something wrong?")},
    KeyBinding{"<Control>question", "app.shortcuts", N_("Keyboard shortcuts")},
    KeyBinding{"<Control>q", "app.quit", N_("Quit")},
};
/// What the page of picture settings does itself.
constexpr std::array kHeadKeys{
    KeyBinding{"<Control>Left <Control>Right <Control>Up <Control>Down", nullptr, N_("Turn the camera")},
    KeyBinding{"<Control>plus <Control>minus", nullptr, N_("Zoom in and out")},
    KeyBinding{"<Control>Home", nullptr, N_("Turn the camera back to its middle")},
};

void addOptions(Gio::Application& application) {
  application.set_option_context_summary(_("Shows a camera live, records films and takes photos."));
  application.add_main_option_entry(Gio::Application::OptionType::STRING, "camera", 'c',
                                    _("Show the camera whose name holds NAME"), _("NAME"));
  application.add_main_option_entry(Gio::Application::OptionType::STRING, "capture", '\0',
                                    _("Where cameras come from: linux, simulated, file:PATH or several joined by +"),
                                    _("SOURCE"));
  application.add_main_option_entry(Gio::Application::OptionType::BOOL, "version", 'v', _("Print the version"));
}

void printVersion() {
  g_print("vesk-camera %s\n", VESK_VERSION_STRING);
}

}  // namespace

Application::Application() : Gtk::Application(kApplicationID, Gio::Application::Flags::HANDLES_COMMAND_LINE) {
  addOptions(*this);
  signal_handle_local_options().connect(sigc::mem_fun(*this, &Application::onLocalOptions), false);
}

Application::~Application() = default;

Glib::RefPtr<Application> Application::create() {
  return Glib::make_refptr_for_instance(new Application());
}

std::optional<int> answerWithoutDisplay(int argc, char** argv) {
  const bool isAsked = std::any_of(argv + 1, argv + argc, [](std::string_view argument) {
    return argument.starts_with("--help") || argument == "-h" || argument == "-?" || argument == "--version" ||
           argument == "-v";
  });
  if (!isAsked) return std::nullopt;
  const auto application = Gio::Application::create(kApplicationID, Gio::Application::Flags::NON_UNIQUE);
  addOptions(*application);
  application->signal_handle_local_options().connect(
      [](const Glib::RefPtr<Glib::VariantDict>&) {
        printVersion();
        return 0;
      },
      false);
  return application->run(argc, argv);
}

/// What needs no window. @return the exit status, or -1 to go on
int Application::onLocalOptions(const Glib::RefPtr<Glib::VariantDict>& options) {
  if (options->contains("version")) {
    printVersion();
    return 0;
  }
  Glib::ustring source;
  if (options->lookup_value("capture", source)) {
    if (const Error error = capture::selectSource(source, {})) {
      g_printerr("vesk-camera: %s\n", sentences(error).c_str());
      return 2;
    }
  }
  return -1;
}

void Application::on_startup() {
  Gtk::Application::on_startup();
  adw_init();
  Gtk::Window::set_default_icon_name(kApplicationID);
  const auto style = Gtk::CssProvider::create();
  style->load_from_data(kStyle);
  Gtk::StyleContext::add_provider_for_display(Gdk::Display::get_default(), style,
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  addShortcuts();
}

void Application::addShortcuts() {
  add_action("shortcuts", [this] { showShortcuts(); });
  add_action("about", [this] { showAbout(); });
  add_action("quit", [this] {
    if (mWindow) mWindow->askToClose();
  });
  for (const KeyBinding& binding : kKeyBindings) set_accel_for_action(binding.action, binding.keys);
}

int Application::on_command_line(const Glib::RefPtr<Gio::ApplicationCommandLine>& line) {
  Glib::ustring camera;
  const bool isNamed = line->get_options_dict()->lookup_value("camera", camera);
  activate();
  if (!mWindow) return 1;
  if (isNamed) mWindow->chooseCameraNamed(camera);
  return 0;
}

void Application::on_activate() {
  if (!mWindow) {
    auto settings = openSettings();
    if (!settings) return;
    mWindow = std::make_unique<MainWindow>(std::move(settings));
    add_window(*mWindow);
  }
  mWindow->present();
}

/// Later: it is inside a call of the window's.
void Application::on_window_removed(Gtk::Window* window) {
  Gtk::Application::on_window_removed(window);
  if (window == mWindow.get()) Glib::signal_idle().connect_once([this] { mWindow.reset(); });
}

/// The rows come from the same table as the keys themselves.
void Application::showShortcuts() {
  std::string rows;
  const auto add = [&rows](const KeyBinding& binding) {
    rows += filled(R"(<child><object class="GtkShortcutsShortcut"><property name="accelerator">{}</property>)"
                   R"(<property name="title">{}</property></object></child>)",
                   Glib::Markup::escape_text(binding.keys).raw(), Glib::Markup::escape_text(_(binding.title)).raw());
  };
  for (const KeyBinding& binding : kKeyBindings) add(binding);
  for (const KeyBinding& binding : kHeadKeys) add(binding);
  const auto builder = Gtk::Builder::create_from_string(
      R"(<interface><object class="GtkShortcutsWindow" id="window"><property name="modal">1</property><child>)"
      R"(<object class="GtkShortcutsSection" id="section"><child><object class="GtkShortcutsGroup">)" +
      rows + "</object></child></object></child></object></interface>");
  auto* const window = builder->get_widget<Gtk::ShortcutsWindow>("window");
  if (!window) return;
  if (mWindow) window->set_transient_for(*mWindow);
  // The first frame has the window, the second what is in it: drawing all at once would hold up the live picture.
  auto* const section = builder->get_widget<Gtk::ShortcutsSection>("section");
  section->set_opacity(0);
  window->add_tick_callback([section, isFirst = true](const Glib::RefPtr<Gdk::FrameClock>&) mutable {
    if (std::exchange(isFirst, false)) return true;
    section->set_opacity(1);
    return false;
  });
  window->present();
}

void Application::showAbout() {
  auto* const window = adw_about_window_new();
  g_object_set(window, "application-name", _("Camera"), "application-icon", kApplicationID, "version",
               VESK_VERSION_STRING, "comments", _("Films and photos with a camera of this computer"), "developer-name",
               // Translators: who made this program.
               _("The Vesk authors"), "license-type", GTK_LICENSE_MIT_X11, nullptr);
  if (mWindow) gtk_window_set_transient_for(GTK_WINDOW(window), mWindow->Gtk::Window::gobj());
  gtk_window_present(GTK_WINDOW(window));
}

}  // namespace vesk::camera
