#pragma once

#include <adwaita.h>
#include <gtkmm.h>

#include <string>
#include <vector>

#include <vesk/doctor.h>
#include "apps/camera/frame_steps.h"
#include "apps/camera/presence.h"

namespace vesk::camera {

/// "Something wrong?": what the library finds out about this machine, and what to do about it.
class DoctorWindow : public Gtk::Window {
 public:
  /// Over `parent`, which it must not outlive; `folder` is where films go. Closing hides it.
  DoctorWindow(Gtk::Window& parent, std::string folder);

 private:
  void look();
  void showFindings(const std::vector<Finding>& findings);
  void add(const Finding& finding);

  const std::string mFolder;
  const Presence<DoctorWindow> mPresence{this};
  Gtk::Spinner mSpinner;
  Gtk::Button mAgain;
  FrameSteps mSteps{*this};  ///< that make the rows
  AdwPreferencesPage* mPage = nullptr;
  AdwPreferencesGroup* mGroup = nullptr;  ///< of the rows that are made now
};

}  // namespace vesk::camera
