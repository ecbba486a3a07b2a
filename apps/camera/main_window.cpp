#include "apps/camera/main_window.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "apps/camera/app_settings.h"
#include "apps/camera/camera_memory.h"
#include "apps/camera/file_names.h"
#include "apps/camera/interrupted_films.h"
#include "apps/camera/shutter_sound.h"
#include "apps/camera/text.h"
#include "apps/camera/widgets.h"

namespace vesk::camera {
namespace {

constexpr unsigned kTickInterval = 200;   ///< ms, of elapsed time and size
constexpr unsigned kHideBarAfter = 2500;  ///< ms, in full screen
constexpr unsigned kFlashInterval = 60;   ///< ms
constexpr unsigned kBurstInterval = 150;  ///< ms from photo to photo while the button is held
constexpr double kFewSeconds = 10 * 60;   ///< that are left on the disk, which a person is to see

}  // namespace

MainWindow::MainWindow(Glib::RefPtr<Gio::Settings> settings)
    : mSettings(std::move(settings)),
      mCapture(LiveCapture::create(mPreview.view)),
      mFilm(*mCapture),
      mPanel(configFolder()) {
  set_title(_("Camera"));
  set_icon_name(kApplicationID);
  set_default_size(mSettings->get_int("window-width"), mSettings->get_int("window-height"));
  buildHeader();
  buildContent();
  addActions();

  mCapture->signal_changed().connect(sigc::mem_fun(*this, &MainWindow::showState));
  mCapture->signal_level().connect([this](float level) { mMicrophoneButton.setLevel(level); });
  mFilm.signal_changed().connect(sigc::mem_fun(*this, &MainWindow::showState));
  mFilm.signal_message().connect([this](const Message& message) { mMessages.show(message); });
  mFilm.signal_messageGone().connect([this](const std::string& id) { mMessages.remove(id); });
  mFilm.signal_started().connect(sigc::mem_fun(*this, &MainWindow::filmStarted));
  mFilm.signal_finished().connect(sigc::mem_fun(*this, &MainWindow::filmFinished));
  mBar.signal_held().connect(sigc::mem_fun(*this, &MainWindow::holdPhoto));
  signal_close_request().connect(sigc::mem_fun(*this, &MainWindow::closeRequested), false);
  signal_realize().connect(sigc::mem_fun(*this, &MainWindow::surfaceChanged));
  signal_map().connect(sigc::mem_fun(*this, &MainWindow::surfaceChanged));
  signal_unmap().connect(sigc::mem_fun(*this, &MainWindow::surfaceChanged));
  property_fullscreened().signal_changed().connect([this] { setFullScreen(is_fullscreen()); });

  mCapture->chooseCamera(mSettings->get_string("camera"));
  mCapture->chooseMicrophone(mSettings->get_string("microphone"));
  mCapture->setWithSound(mSettings->get_boolean("with-sound"));
  mCapture->setFormats([](const VeskDeviceInfo& camera) {
    return CameraMemory(configFolder(), camera).format().value_or(VideoFormatRequest());
  });
  mPanel.signal_format().connect([this] { mCapture->restart(); });
  mPanel.addKeys(*this);
  mCapture->start();
  offerInterruptedFilms(filmFolder(), mMessages);
  showState();
}

MainWindow::~MainWindow() {
  for (auto* const connection :
       {&mTick, &mCountdownTick, &mBurst, &mFlashEnd, &mHideBar, &mHidden, &mSurfaceState, &mSurfaceWidth})
    connection->disconnect();
  mCapture->close();
}

void MainWindow::buildHeader() {
  const auto menu = Gio::Menu::create();
  const auto films = Gio::Menu::create();
  films->append(_("Show in _Folder"), "win.show-in-folder");
  films->append(_("Folder of _Films…"), "win.choose-folder");
  films->append(_("Folder of _Photos…"), "win.choose-photo-folder");
  films->append(_("S_hutter Sound"), "win.shutter-sound");
  const auto help = Gio::Menu::create();
  help->append(_("Something _Wrong?"), "win.doctor");
  help->append(_("_Keyboard Shortcuts"), "app.shortcuts");
  help->append(_("_About Camera"), "app.about");
  menu->append_section(films);
  menu->append_section(help);
  mMenuButton.set_icon_name("open-menu-symbolic");
  mMenuButton.set_menu_model(menu);
  mMenuButton.set_primary();
  describe(mMenuButton, _("Main menu"));

  mSettingsButton.set_icon_name("emblem-system-symbolic");
  mSettingsButton.set_action_name("win.show-settings");
  describe(mSettingsButton, _("Picture settings"));

  mHeader.pack_start(mCameraButton);
  mHeader.pack_start(mMicrophoneButton);
  mHeader.pack_end(mMenuButton);
  mHeader.pack_end(mSettingsButton);
  // The names of the devices say more than a title would.
  mHeader.set_title_widget(*Gtk::make_managed<Gtk::Label>());
  set_titlebar(mHeader);
}

void MainWindow::buildContent() {
  describeSilently(mPreview, _("Live picture"));
  mPreview.set_expand();
  mFrame.set_obey_child(false);
  mFrame.set_child(mPreview);
  mFrame.set_expand();

  mProgress.add_css_class("progress");
  mProgress.add_css_class("osd");
  mProgress.add_css_class("numeric");
  mProgress.set_wrap();
  mProgress.set_justify(Gtk::Justification::CENTER);
  mProgress.set_halign(Gtk::Align::CENTER);
  mProgress.set_valign(Gtk::Align::END);
  mProgress.set_margin(12);
  mProgress.set_visible(false);
  mCountdown.add_css_class("countdown");
  mCountdown.set_halign(Gtk::Align::CENTER);
  mCountdown.set_valign(Gtk::Align::CENTER);
  mCountdown.set_visible(false);
  mFlash.add_css_class("flash");
  mFlash.set_can_target(false);

  mOverlay.set_child(mFrame);
  mOverlay.add_css_class("stage");
  mOverlay.add_overlay(mFlash);
  mOverlay.add_overlay(mProgress);
  mOverlay.add_overlay(mCountdown);
  mOverlay.add_overlay(mMessages);
  mOverlay.set_size_request(240, 160);
  const auto pointer = Gtk::EventControllerMotion::create();
  pointer->signal_motion().connect([this](double, double) { pointerMoved(); });
  add_controller(pointer);

  auto* const column = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL);
  mBarRevealer.set_child(mBar);
  mBarRevealer.set_transition_type(Gtk::RevealerTransitionType::SLIDE_UP);
  mBarRevealer.set_reveal_child();
  column->append(mOverlay);
  column->append(mBarRevealer);

  auto* const flap = adw_flap_new();
  adw_flap_set_content(ADW_FLAP(flap), GTK_WIDGET(column->gobj()));
  adw_flap_set_flap(ADW_FLAP(flap), GTK_WIDGET(mPanel.gobj()));
  adw_flap_set_separator(ADW_FLAP(flap), gtk_separator_new(GTK_ORIENTATION_VERTICAL));
  adw_flap_set_flap_position(ADW_FLAP(flap), GTK_PACK_END);
  g_settings_bind(mSettings->gobj(), "show-settings", flap, "reveal-flap", G_SETTINGS_BIND_DEFAULT);
  set_child(*Gtk::manage(Glib::wrap(flap)));
}

void MainWindow::addActions() {
  mRecordAction = add_action("record", sigc::mem_fun(*this, &MainWindow::record));
  mPhotoAction = add_action("photo", [this] { countDown([this] { takePhoto(); }); });
  mCameraAction = add_action_radio_string(
      "camera",
      [this](const Glib::ustring& path) {
        mSettings->set_string("camera", path);
        mCapture->chooseCamera(path);
        showState();
      },
      "");
  mMicrophoneAction = add_action_radio_string(
      "microphone",
      [this](const Glib::ustring& path) {
        mSettings->set_string("microphone", path);
        mCapture->chooseMicrophone(path);
        showState();
      },
      "");
  mMuteAction = add_action_bool(
      "mute", [this] { mCapture->setMuted(!mCapture->isMuted()); }, false);
  for (const char* const key : {"mirror", "timer", "shutter-sound", "with-sound", "show-settings"})
    add_action(mSettings->create_action(key));
  mSettings->signal_changed("mirror").connect([this](const Glib::ustring&) { showMirrored(); });
  mSettings->signal_changed("with-sound").connect([this](const Glib::ustring&) {
    mCapture->setWithSound(mSettings->get_boolean("with-sound"));
  });
  showMirrored();
  add_action("full-screen", [this] { is_fullscreen() ? unfullscreen() : fullscreen(); });
  add_action("leave-full-screen", [this] {
    endCountdown();
    unfullscreen();
  });
  add_action("restart", [this] { mCapture->restart(); });
  add_action("doctor", [this] { showDoctor(); });
  add_action("open-last", [this] { mBar.lastItem().open(); });
  add_action("show-in-folder", [this] {
    const std::string& file = mBar.lastItem().file();
    showInFileManager(file.empty() ? filmFolder() + "/." : file);
  });
  add_action("choose-folder", [this] { chooseFolder("film-folder", _("Folder of Films")); });
  add_action("choose-photo-folder", [this] { chooseFolder("photo-folder", _("Folder of Photos")); });
  add_action("cameras", [this] { mCameraButton.popup(); });
  add_action("microphones", [this] { mMicrophoneButton.popup(); });
}

/// Looks anew each time. One that is open is over this window, which can do nothing meanwhile.
void MainWindow::showDoctor() {
  mDoctor = std::make_unique<DoctorWindow>(*this, filmFolder());
  mDoctor->present();
}

void MainWindow::showMirrored() {
  const bool isMirrored = mSettings->get_boolean("mirror");
  mPreview.setMirrored(isMirrored);
  mPanel.setMirrored(isMirrored);
}

/// Keeps the folder that is chosen under `key`.
void MainWindow::chooseFolder(const std::string& key, const std::string& title) {
  mChooser = Gtk::FileChooserNative::create(title, *this, Gtk::FileChooser::Action::SELECT_FOLDER, _("_Choose"), "");
  mChooser->set_modal();
  mChooser->signal_response().connect([this, key](int response) {
    const auto chooser = std::exchange(mChooser, {});
    if (chooser && response == static_cast<int>(Gtk::ResponseType::ACCEPT) && chooser->get_file())
      mSettings->set_string(key, chooser->get_file()->get_path());
  });
  mChooser->show();
}

void MainWindow::chooseCameraNamed(const std::string& name) {
  mWantedName = name;
  showState();
}

std::string MainWindow::filmFolder() const {
  const std::string folder = mSettings->get_string("film-folder");
  return Glib::path_is_absolute(folder) ? folder : defaultFilmFolder();
}

std::string MainWindow::photoFolder() const {
  const std::string folder = mSettings->get_string("photo-folder");
  return Glib::path_is_absolute(folder) ? folder : defaultPhotoFolder();
}

/// Brings everything that is shown up to what is so.
void MainWindow::showState() {
  if (!mWantedName.empty() && mCapture->hasLooked()) {
    const Glib::ustring wanted = Glib::ustring(std::exchange(mWantedName, "")).casefold();
    for (const auto& info : mCapture->cameras()) {
      if (Glib::ustring(info->name().value_or("")).casefold().find(wanted) == Glib::ustring::npos) continue;
      mCapture->chooseCamera(info->path().value_or(""));
      break;
    }
  }
  const bool isRecording = mFilm.isActive();
  const auto& camera = mCapture->camera();
  mCameraButton.show(*mCapture);
  mMicrophoneButton.show(*mCapture);
  mBar.setRecording(isRecording);
  mPanel.setRecording(isRecording);
  mPanel.setCamera(camera);
  mRecordAction->set_enabled(camera || isRecording);
  mPhotoAction->set_enabled(camera != nullptr);
  mCameraAction->set_enabled(!isRecording);
  mMicrophoneAction->set_enabled(!isRecording);
  mCameraAction->change_state(Glib::ustring(camera ? camera->deviceInfo()->path().value_or("") : std::string()));
  mMicrophoneAction->change_state(Glib::ustring(
      mCapture->microphone() ? mCapture->microphone()->deviceInfo()->path().value_or("") : std::string()));
  mMuteAction->set_enabled(mCapture->microphone() != nullptr);
  mMuteAction->change_state(mCapture->isMuted());
  if (camera) {
    const auto format = camera->getFormat();
    if (format && format->dimensions().height > 0)
      mFrame.set_ratio(static_cast<float>(format->dimensions().width) /
                       static_cast<float>(format->dimensions().height));
  }
  showMessages();
  if (isRecording != mTick.connected()) {
    mTick.disconnect();
    if (isRecording) mTick = Glib::signal_timeout().connect([this] { return showProgress(), true; }, kTickInterval);
    inhibitSleep(isRecording);
  }
  showProgress();
  surfaceChanged();
  if (mIsClosing && !isRecording) closeNow();
}

void MainWindow::showMessages() {
  const bool isRecording = mFilm.isActive();
  const Message::Action again{_("Try Again"), [this] { mCapture->restart(); }};
  const Message::Action doctor{_("Something Wrong?"), [this] { showDoctor(); }};
  using Kind = Message::Kind;
  mMessages.showWhile(mCapture->hasLooked() && mCapture->cameras().empty() && !isRecording,
                      {"no-camera", Kind::kProblem, _("There is no camera. Plug one in."), {doctor}});
  mMessages.showWhile(static_cast<bool>(mCapture->error()),
                      {"camera", Kind::kProblem, sentences(mCapture->error()), {again, doctor}});
  mMessages.showWhile(mCapture->isFrozen() && !isRecording,
                      {"frozen",
                       Kind::kProblem,
                       _("The picture is frozen: the camera has stopped sending. Unplug it and plug it in again."),
                       {again}});
  mMessages.showWhile(
      mCapture->isMuted() && mCapture->microphone(),
      {"muted", Kind::kProblem, _("The microphone is muted: films have no sound."), {{_("Unmute"), [this] {
                                                                                        mCapture->setMuted(false);
                                                                                      }}}});
  mMessages.showWhile(mCapture->isSilent() && !mCapture->isMuted() && !mMessages.has("film-sound"),
                      {"silent",
                       Kind::kProblem,
                       _("The microphone is silent. See whether it is switched off or turned down."),
                       {doctor}});
}

void MainWindow::showProgress() {
  mProgress.set_visible(mFilm.isActive());
  if (!mFilm.isActive()) return mProgress.set_text("");  // hidden, it is read aloud all the same
  const RecordingProgress progress = mFilm.progress();
  std::string text = filled(_("● {} · {}"), timeText(static_cast<double>(progress.statistics.duration) / 1e6),
                            sizeText(progress.statistics.bytes));
  if (mFilm.isWaiting()) text = _("● waiting for the camera");
  if (progress.secondsLeftOnDisk) text += " · " + timeLeftText(*progress.secondsLeftOnDisk);
  mProgress.set_text(text);
  if (progress.secondsLeftOnDisk && *progress.secondsLeftOnDisk < kFewSeconds)
    mProgress.add_css_class("problem");
  else
    mProgress.remove_css_class("problem");
}

void MainWindow::record() {
  if (mFilm.isActive()) return mFilm.stop();
  countDown([this] { startFilm(); });
}

/// Does it after as many seconds as the timer says. A second call meanwhile takes it back.
void MainWindow::countDown(std::function<void()> work) {
  if (mCountdownTick.connected()) return endCountdown();
  mSecondsLeft = mFilm.isActive() ? 0 : mSettings->get_int("timer");
  if (mSecondsLeft <= 0) return work();
  const auto show = [this] {
    mCountdown.set_text(std::to_string(mSecondsLeft));
    describeSilently(mCountdown, filled(_("Timer: {}"), mSecondsLeft));
    mCountdown.set_visible();
  };
  show();
  mCountdownTick = Glib::signal_timeout().connect(
      [this, show, work = std::move(work)] {
        if (--mSecondsLeft > 0) return show(), true;
        const auto begin = work;  // ending lets this function go
        endCountdown();
        return begin(), false;
      },
      1000);
}

/// GTK keeps the hidden label in the accessibility tree: its words have to go too.
void MainWindow::endCountdown() {
  mCountdownTick.disconnect();
  mCountdown.set_visible(false);
  mCountdown.set_text("");
  describeSilently(mCountdown, "");
}

void MainWindow::startFilm() {
  mMessages.remove("film");
  if (const Error error = mFilm.start(filmFolder())) {
    const Message::Action choose{_("Choose Folder"), [this] { activate_action("win.choose-folder"); }};
    return mMessages.show({"film", Message::Kind::kProblem, sentences(error), {choose}});
  }
}

/// The small picture of a film is what is on show as it begins.
void MainWindow::filmStarted() {
  mFilmPicture = Glib::build_filename(Glib::get_tmp_dir(), filled("vesk-camera-{}.jpeg", g_random_int()));
  mCapture->takePhoto(mFilmPicture, [](const PhotoOutcome&) {});
}

void MainWindow::filmFinished(const RecordedMovie& movie) {
  mBar.lastItem().show(movie.file, std::exchange(mFilmPicture, ""), true);
}

void MainWindow::takePhoto() {
  if (mIsPhotoUnderWay) return;
  const std::string folder = photoFolder();
  if (const Error error = makeFolder(folder)) return showPhotoError(error);
  mIsPhotoUnderWay = true;
  mMessages.remove("photo");
  flash();
  if (mSettings->get_boolean("shutter-sound") && !mFilm.isActive()) playShutterSound(*this);
  mCapture->takePhoto(
      newFileName(folder, _("Photo"), ".jpeg"),
      mPresence.whileThere([](MainWindow& window, const PhotoOutcome& photo) { window.photoTaken(photo); }));
}

void MainWindow::photoTaken(const PhotoOutcome& photo) {
  mIsPhotoUnderWay = false;
  if (photo.error) return showPhotoError(photo.error);
  mBar.lastItem().show(photo.path, photo.path, false);
}

void MainWindow::showPhotoError(const Error& error) {
  const bool isOfFolder = error.cause == Cause::kFolderGone || error.cause == Cause::kNoPermission ||
                          error.cause == Cause::kDiskFull || error.cause == Cause::kFileError;
  Message message{"photo", Message::Kind::kProblem, sentences(error), {}};
  if (isOfFolder)
    message.actions.push_back({_("Choose Folder"), [this] { activate_action("win.choose-photo-folder"); }});
  mMessages.show(message);
}

void MainWindow::holdPhoto(bool isHeld) {
  mBurst.disconnect();
  if (!isHeld) return;
  takePhoto();
  mBurst = Glib::signal_timeout().connect([this] { return takePhoto(), true; }, kBurstInterval);
}

void MainWindow::flash() {
  mFlash.add_css_class("on");
  mFlashEnd.disconnect();
  mFlashEnd = Glib::signal_timeout().connect([this] { return mFlash.remove_css_class("on"), false; }, kFlashInterval);
}

void MainWindow::setFullScreen(bool isFullScreen) {
  mHideBar.disconnect();
  mBarRevealer.set_reveal_child(!isFullScreen);
  set_cursor(isFullScreen ? "none" : "");
}

/// In full screen the bar comes with the pointer.
void MainWindow::pointerMoved() {
  if (!is_fullscreen()) return;
  mBarRevealer.set_reveal_child();
  set_cursor("");
  mHideBar.disconnect();
  mHideBar = Glib::signal_timeout().connect([this] { return setFullScreen(is_fullscreen()), false; }, kHideBarAfter);
}

/// A camera that nobody sees goes off after a while, and on as soon as somebody does.
void MainWindow::surfaceChanged() {
  const auto surface = get_realized() ? std::dynamic_pointer_cast<Gdk::Toplevel>(get_surface()) : nullptr;
  if (!surface) return;
  if (!mSurfaceWidth.connected())
    mSurfaceWidth =
        get_surface()->property_width().signal_changed().connect(sigc::mem_fun(*this, &MainWindow::widthChanged));
  widthChanged();
  if (!mSurfaceState.connected())
    mSurfaceState =
        surface->property_state().signal_changed().connect(sigc::mem_fun(*this, &MainWindow::surfaceChanged));
  const bool isMinimized = (surface->get_state() & Gdk::Toplevel::State::MINIMIZED) == Gdk::Toplevel::State::MINIMIZED;
  const bool isHidden = (isMinimized || !get_mapped()) && !mFilm.isActive();
  if (!isHidden) {
    mHidden.disconnect();
    return mCapture->setWanted(true);
  }
  if (mHidden.connected()) return;
  mHidden = Glib::signal_timeout().connect_seconds([this] { return mCapture->setWanted(false), true; },
                                                   mSettings->get_uint("camera-off-after"));
}

/// What is narrow depends on the size of the text.
void MainWindow::widthChanged() {
  constexpr int kLine = 76;  // characters: a message with its buttons beside it
  const auto surface = get_surface();
  if (!surface) return;
  const auto text = get_pango_context();
  const int character = text->get_metrics(text->get_font_description()).get_approximate_char_width();
  mMessages.setNarrow(surface->get_width() < kLine * character / PANGO_SCALE);
}

void MainWindow::inhibitSleep(bool inhibits) {
  const auto application = get_application();
  if (!application) return;
  if (mInhibitor != 0) application->uninhibit(std::exchange(mInhibitor, 0));
  if (!inhibits) return;
  using Flags = Gtk::Application::InhibitFlags;
  mInhibitor = application->inhibit(*this, Flags::SUSPEND | Flags::IDLE | Flags::LOGOUT, _("A film is being recorded"));
}

bool MainWindow::closeRequested() {
  if (mFilm.isActive())
    askToClose();
  else
    closeNow();
  return true;  // GTK would destroy the widgets at once, which what still comes from the devices is shown in
}

void MainWindow::askToClose() {
  if (!mFilm.isActive()) return close();
  if (mIsClosing || std::exchange(mIsAsking, true)) return;
  auto* const dialog = adw_message_dialog_new(GTK_WINDOW(gobj()), _("Stop Recording?"),
                                              _("A film is being recorded. It is kept as far as it has come."));
  adw_message_dialog_add_responses(ADW_MESSAGE_DIALOG(dialog), "continue", _("_Go On Recording"), "stop",
                                   _("_Stop and Close"), nullptr);
  adw_message_dialog_set_default_response(ADW_MESSAGE_DIALOG(dialog), "continue");
  adw_message_dialog_set_close_response(ADW_MESSAGE_DIALOG(dialog), "continue");
  adw_message_dialog_set_response_appearance(ADW_MESSAGE_DIALOG(dialog), "stop", ADW_RESPONSE_DESTRUCTIVE);
  g_signal_connect(dialog, "response", G_CALLBACK(+[](AdwMessageDialog*, const char* response, gpointer self) {
                     auto* const window = static_cast<MainWindow*>(self);
                     window->mIsAsking = false;
                     if (g_strcmp0(response, "stop") != 0) return;
                     window->mIsClosing = true;
                     if (window->mFilm.isActive())
                       window->mFilm.stop();
                     else
                       window->closeNow();
                   }),
                   this);
  gtk_window_present(GTK_WINDOW(dialog));
}

void MainWindow::closeNow() {
  if (get_visible() && !is_maximized() && !is_fullscreen()) {  // called once more it has no size
    mSettings->set_int("window-width", get_width());
    mSettings->set_int("window-height", get_height());
  }
  set_visible(false);
  if (const auto application = get_application()) application->remove_window(*this);
}

}  // namespace vesk::camera
