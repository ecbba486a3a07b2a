#pragma once

#include <adwaita.h>
#include <gtkmm.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vesk/video_device.h>
#include "apps/camera/camera_controls_model.h"
#include "apps/camera/control_words.h"
#include "apps/camera/frame_steps.h"
#include "apps/camera/head_pad.h"

namespace vesk::camera {

/// The page of picture settings beside the live picture: all that the camera can be set to, its head, and presets.
/// What a person sets is kept for the camera and set again whenever it comes back, shown or not.
class PicturePanel : public Gtk::Box {
 public:
  /// @param folder where the application keeps what it knows about cameras
  explicit PicturePanel(const std::string& folder);
  ~PicturePanel() override;
  PicturePanel(const PicturePanel&) = delete;
  PicturePanel& operator=(const PicturePanel&) = delete;

  /// The camera that is on; null for none. Waits for nothing. The camera stays open until it is taken back, and a
  /// moment longer: one that only changes its format comes back at once.
  void setCamera(const std::shared_ptr<VeskVideoDevice>& camera);
  /// Whether the picture is shown as a mirror shows it.
  void setMirrored(bool isMirrored) { mPad.setMirrored(isMirrored); }
  /// Lets Ctrl with arrows, plus and minus move the head wherever the focus is in the window.
  void addKeys(Gtk::Widget& window) { mPad.addKeys(window); }
  /// A film is being recorded: its format stays.
  void setRecording(bool isRecording);
  /// A person has chosen another format for the camera that is on; CameraMemory has it.
  sigc::signal<void()>& signal_format() { return mFormatChosen; }

 private:
  /// The widgets of a control; those that it does not have are null.
  struct Row {
    ControlID id;
    Gtk::Widget* row = nullptr;
    Gtk::Scale* slider = nullptr;
    Gtk::Label* value = nullptr;
    Gtk::Switch* toggle = nullptr;
    AdwComboRow* choice = nullptr;
    Gtk::Button* reset = nullptr;
  };

  void showCamera();
  void showNothing(const char* icon, const std::string& title, const std::string& text);
  void addControls(ControlGroup group);
  Row makeSlider(AdwPreferencesGroup* group, const ControlState& state);
  Row makeSwitch(AdwPreferencesGroup* group, const ControlState& state);
  Row makeChoice(AdwPreferencesGroup* group, const ControlState& state);
  Gtk::Button* makeReset(ControlID id);
  void addPad(AdwPreferencesGroup* group);
  void addFormat();
  void showFormat();
  void chooseFormat(const VideoFormatRequest& request);
  void addPresets();
  void addResetAll();
  void showValues();
  void showValue(const Row& row, const ControlState& state);
  bool isAtDefault(const ControlState& state) const;
  void showPresets();
  void addPreset(const std::string& name);
  void askForName(const std::string& name);
  void confirmRemoval(const std::string& name);
  void showFailure(const Error& error);
  void showMessage(const std::string& text, bool canUndo);

  CameraControlsModel mModel;
  HeadPad mPad;
  Gtk::Revealer mMessage;
  Gtk::Label mMessageText;
  Gtk::Button mUndo;
  Gtk::ScrolledWindow mScroll;
  Gtk::Box* mPage = nullptr;              ///< the groups of the camera
  FrameSteps mSteps{*this};               ///< that make the rest of the page
  AdwPreferencesGroup* mGroup = nullptr;  ///< of the rows that are made now
  std::vector<Row> mRows;
  AdwPreferencesGroup* mPresets = nullptr;
  std::vector<GtkWidget*> mPresetRows;
  AdwPreferencesGroup* mFormat = nullptr;
  AdwComboRow* mSize = nullptr;
  AdwComboRow* mRate = nullptr;
  AdwComboRow* mCodec = nullptr;  ///< null where there is only one
  std::vector<CMVideoDimensions> mSizes;
  std::vector<double> mRates;
  bool mIsRecording = false;
  sigc::connection mGone;  ///< the camera is taken back soon
  sigc::signal<void()> mFormatChosen;
  ControlValues mBefore;    ///< what was reset, for its undoing
  bool mIsShowing = false;  ///< widgets are being set, and not by a person
};

}  // namespace vesk::camera
