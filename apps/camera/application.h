#pragma once

#include <gtkmm.h>

#include <memory>
#include <optional>
#include <string>

namespace vesk::camera {

class MainWindow;

/// Prints the help or the version when that is what the command line asks for: GTK's application wants a display at
/// once.
/// @return the exit status, or nothing when it asks for neither
std::optional<int> answerWithoutDisplay(int argc, char** argv);

/// The program: one window; a second start raises the first.
class Application : public Gtk::Application {
 public:
  static Glib::RefPtr<Application> create();
  ~Application() override;

 protected:
  void on_startup() override;
  void on_activate() override;
  int on_command_line(const Glib::RefPtr<Gio::ApplicationCommandLine>& line) override;
  void on_window_removed(Gtk::Window* window) override;

 private:
  Application();
  int onLocalOptions(const Glib::RefPtr<Glib::VariantDict>& options);
  void addShortcuts();
  void showShortcuts();
  void showAbout();

  std::unique_ptr<MainWindow> mWindow;
};

}  // namespace vesk::camera
