#pragma once

#include <adwaita.h>
#include <gtkmm.h>

#include <memory>
#include <string>

#include "apps/camera/device_buttons.h"
#include "apps/camera/doctor_window.h"
#include "apps/camera/film_recording.h"
#include "apps/camera/live_capture.h"
#include "apps/camera/live_picture.h"
#include "apps/camera/message_list.h"
#include "apps/camera/picture_panel.h"
#include "apps/camera/presence.h"
#include "apps/camera/record_bar.h"

namespace vesk::camera {

/// The window: the live picture, what is chosen above it and what is done with it below it.
class MainWindow : public Gtk::ApplicationWindow {
 public:
  explicit MainWindow(Glib::RefPtr<Gio::Settings> settings);
  ~MainWindow() override;
  MainWindow(const MainWindow&) = delete;
  MainWindow& operator=(const MainWindow&) = delete;

  /// Shows the camera whose name holds `name`, once the devices are known.
  void chooseCameraNamed(const std::string& name);
  /// Ends what is recorded, as closing does. Asks while a film is recorded.
  void askToClose();

 private:
  void buildHeader();
  void buildContent();
  void addActions();
  void showDoctor();
  void showMirrored();
  void chooseFolder(const std::string& key, const std::string& title);

  void showState();
  void showMessages();
  void showProgress();

  void record();
  void startFilm();
  void countDown(std::function<void()> work);
  void endCountdown();
  void takePhoto();
  void photoTaken(const PhotoOutcome& photo);
  void showPhotoError(const Error& error);
  void holdPhoto(bool isHeld);
  void flash();
  void filmStarted();
  void filmFinished(const RecordedMovie& movie);

  std::string filmFolder() const;
  std::string photoFolder() const;
  void setFullScreen(bool isFullScreen);
  void pointerMoved();
  void surfaceChanged();
  void widthChanged();
  void inhibitSleep(bool inhibits);
  void closeNow();
  bool closeRequested();

  const Glib::RefPtr<Gio::Settings> mSettings;
  const Presence<MainWindow> mPresence{this};
  LivePicture mPreview;
  const std::shared_ptr<LiveCapture> mCapture;
  FilmRecording mFilm;

  Gtk::HeaderBar mHeader;
  CameraButton mCameraButton;
  MicrophoneButton mMicrophoneButton;
  Gtk::MenuButton mMenuButton;
  Gtk::ToggleButton mSettingsButton;
  Gtk::AspectFrame mFrame;
  Gtk::Overlay mOverlay;
  Gtk::Label mProgress;
  Gtk::Label mCountdown;
  Gtk::Box mFlash;
  MessageList mMessages;
  Gtk::Revealer mBarRevealer;
  RecordBar mBar;
  PicturePanel mPanel;
  std::unique_ptr<DoctorWindow> mDoctor;
  Glib::RefPtr<Gtk::FileChooserNative> mChooser;  ///< of a folder, while it is open
  Glib::RefPtr<Gio::SimpleAction> mRecordAction;
  Glib::RefPtr<Gio::SimpleAction> mPhotoAction;
  Glib::RefPtr<Gio::SimpleAction> mCameraAction;
  Glib::RefPtr<Gio::SimpleAction> mMicrophoneAction;
  Glib::RefPtr<Gio::SimpleAction> mMuteAction;

  std::string mWantedName;   ///< of a camera, on the command line
  std::string mFilmPicture;  ///< a file with the first picture of the film under way
  sigc::connection mTick;
  sigc::connection mCountdownTick;
  sigc::connection mBurst;  ///< of photos, while the button is held
  sigc::connection mFlashEnd;
  sigc::connection mHideBar;
  sigc::connection mHidden;
  sigc::connection mSurfaceState;
  sigc::connection mSurfaceWidth;
  int mSecondsLeft = 0;
  bool mIsPhotoUnderWay = false;
  bool mIsAsking = false;  ///< whether to stop recording and close
  bool mIsClosing = false;
  unsigned mInhibitor = 0;
};

}  // namespace vesk::camera
