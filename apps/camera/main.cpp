#include <glib/gi18n.h>
#include <gtk/gtk.h>

#include <clocale>

#include <vesk/device_manager.h>
#include "apps/camera/app_settings.h"
#include "apps/camera/application.h"
#include "apps/camera/widget_drawing.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  bindtextdomain("vesk-camera", (vesk::camera::shareFolder() + "/locale").c_str());
  bind_textdomain_codeset("vesk-camera", "UTF-8");
  textdomain("vesk-camera");
  if (const auto status = vesk::camera::answerWithoutDisplay(argc, argv)) return *status;
  if (!gtk_init_check()) {
    g_printerr("vesk-camera: %s\n", _("There is no display. Start it in a desktop session."));
    return 1;
  }
  vesk::camera::chooseWidgetDrawing();
  const auto application = vesk::camera::Application::create();
  const int status = application->run(argc, argv);
  vesk::VeskDeviceManager::destroy();
  return status;
}
