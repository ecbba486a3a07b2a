#include "apps/camera/shutter_sound.h"

#include <canberra.h>

#include "apps/camera/app_settings.h"
#include "apps/camera/text.h"

namespace vesk::camera {

/// Failures are not worth a word: a photo without a sound is a photo.
void playShutterSound(Gtk::Window& /*window*/) {
  static ca_context* const context = [] {
    ca_context* made = nullptr;
    if (ca_context_create(&made) != CA_SUCCESS) return static_cast<ca_context*>(nullptr);
    ca_context_change_props(made, CA_PROP_APPLICATION_ID, kApplicationID, CA_PROP_APPLICATION_NAME, _("Camera"),
                            nullptr);
    return made;
  }();
  if (context)
    ca_context_play(context, 0, CA_PROP_EVENT_ID, "camera-shutter", CA_PROP_EVENT_DESCRIPTION, _("Photo taken"),
                    nullptr);
}

}  // namespace vesk::camera
