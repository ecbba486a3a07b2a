#include "apps/camera/doctor_window.h"

#include <filesystem>
#include <system_error>

#include <vesk/dispatch_queue.h>
#include <vesk/doctor.h>
#include "apps/camera/finding_words.h"
#include "apps/camera/text.h"
#include "apps/camera/widgets.h"

namespace vesk::camera {
namespace {

/// A folder that is not there is made for the first film, where the last one above it is that is.
std::string existingPartOf(const std::string& folder) {
  std::filesystem::path place(folder);
  std::error_code ignored;
  while (place.has_relative_path() && !std::filesystem::exists(place, ignored)) place = place.parent_path();
  return place.string();
}

const char* iconOf(Finding::Mark mark) {
  switch (mark) {
    case Finding::Mark::kOk:
      return "emblem-ok-symbolic";
    case Finding::Mark::kNote:
      return "dialog-information-symbolic";
    case Finding::Mark::kProblem:
      return "dialog-warning-symbolic";
  }
  return "";
}

/// Titles are shown as they are: what the machine says is no markup.
GtkWidget* rowOf(const Finding& finding) {
  const FindingWords words = wordsOf(finding);
  GtkWidget* const row = adw_action_row_new();
  adw_preferences_row_set_use_markup(ADW_PREFERENCES_ROW(row), FALSE);
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), words.text.c_str());
  adw_action_row_set_title_lines(ADW_ACTION_ROW(row), 0);
  adw_action_row_set_subtitle(ADW_ACTION_ROW(row), words.remedy.c_str());
  adw_action_row_set_subtitle_lines(ADW_ACTION_ROW(row), 0);
  adw_action_row_set_icon_name(ADW_ACTION_ROW(row), iconOf(finding.mark));
  gtk_list_box_row_set_activatable(GTK_LIST_BOX_ROW(row), FALSE);
  return row;
}

const char* titleOf(Finding::Mark mark) {
  switch (mark) {
    case Finding::Mark::kOk:
      return _("What works");
    case Finding::Mark::kNote:
      return _("Worth knowing");
    case Finding::Mark::kProblem:
      return _("What does not work");
  }
  return "";
}

}  // namespace

DoctorWindow::DoctorWindow(Gtk::Window& parent, std::string folder) : mFolder(std::move(folder)) {
  set_title(_("Something Wrong?"));
  set_transient_for(parent);
  set_modal();
  set_hide_on_close();
  set_default_size(560, 560);
  auto* const header = Gtk::make_managed<Gtk::HeaderBar>();
  mAgain.set_icon_name("view-refresh-symbolic");
  describe(mAgain, _("Look again"));
  mAgain.signal_clicked().connect([this] { look(); });
  header->pack_start(mAgain);
  set_titlebar(*header);
  mSpinner.set_size_request(32, 32);
  mSpinner.set_halign(Gtk::Align::CENTER);
  mSpinner.set_valign(Gtk::Align::CENTER);
  const auto keys = Gtk::ShortcutController::create();
  keys->add_shortcut(
      Gtk::Shortcut::create(Gtk::KeyvalTrigger::create(GDK_KEY_Escape), Gtk::NamedAction::create("window.close")));
  add_controller(keys);
  look();
}

/// It may take a second. The window may be closed meanwhile.
void DoctorWindow::look() {
  mSteps.clear();
  set_child(mSpinner);
  mSpinner.start();
  mAgain.set_sensitive(false);
  const auto show = mPresence.whileThere(
      [](DoctorWindow& window, const std::vector<Finding>& findings) { window.showFindings(findings); });
  DispatchQueue::globalQueue()->async([folder = mFolder, show] {
    DispatchQueue::mainQueue()->async([findings = diagnose(existingPartOf(folder)), show] { show(findings); });
  });
}

/// What is wrong comes first.
void DoctorWindow::showFindings(const std::vector<Finding>& findings) {
  mSpinner.stop();
  mAgain.set_sensitive();
  mPage = ADW_PREFERENCES_PAGE(adw_preferences_page_new());
  mGroup = nullptr;
  // The page scrolls by itself, in a part that takes the keys and has no name.
  if (GtkWidget* const scrolled = gtk_widget_get_first_child(GTK_WIDGET(mPage)))
    gtk_accessible_update_property(GTK_ACCESSIBLE(scrolled), GTK_ACCESSIBLE_PROPERTY_LABEL, _("Something Wrong?"), -1);
  set_child(*Gtk::manage(Glib::wrap(GTK_WIDGET(mPage))));
  for (const auto mark : {Finding::Mark::kProblem, Finding::Mark::kNote, Finding::Mark::kOk}) {
    mSteps.add([this] { mGroup = nullptr; });
    for (const Finding& finding : findings)
      if (finding.mark == mark) mSteps.add([this, finding] { add(finding); });
  }
}

void DoctorWindow::add(const Finding& finding) {
  if (!mGroup) {
    mGroup = ADW_PREFERENCES_GROUP(adw_preferences_group_new());
    adw_preferences_group_set_title(mGroup, titleOf(finding.mark));
    adw_preferences_page_add(mPage, mGroup);
  }
  adw_preferences_group_add(mGroup, rowOf(finding));
}

}  // namespace vesk::camera
