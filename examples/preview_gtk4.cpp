// Shows a camera live in a window of GTK 4, with a choice of cameras and a button that records.
//
//   preview_gtk4 [MOVIE.mov]      Alt+R records, Escape ends
#include <gtkmm.h>

#include <vesk/gtk4.h>
#include <vesk/vesk.h>

namespace {

class Window : public Gtk::Window {
 public:
  Window(vesk::VeskDeviceListPtr cameras, std::string movie) : mCameras(std::move(cameras)), mMovie(std::move(movie)) {
    set_title("Camera");
    set_default_size(800, 500);
    set_titlebar(mBar);
    set_child(mPreview);
    mBar.pack_start(mChoice);
    mBar.pack_end(mButton);
    const auto names = Gtk::StringList::create({});
    for (const auto& info : *mCameras) names->append(info->name().value_or("Camera"));
    mChoice.set_model(names);
    mChoice.property_selected().signal_changed().connect([this] { choose(); });
    mButton.signal_toggled().connect([this] { record(); });
    const auto keys = Gtk::ShortcutController::create();
    keys->add_shortcut(
        Gtk::Shortcut::create(Gtk::KeyvalTrigger::create(GDK_KEY_Escape), Gtk::NamedAction::create("window.close")));
    add_controller(keys);
    choose();
  }

 private:
  void choose() {
    if (mSession) mSession->closeSession();
    mCamera = vesk::VeskVideoDevice::initWithDeviceInfo(mCameras->at(mChoice.get_selected()));
    if (mCamera->openDevice() != 0) return g_printerr("%s\n", mCamera->lastError().what.c_str());
    vesk::chooseVideoFormat(*mCamera);
    mSession = vesk::VeskPreviewSession::initWithDevice(mCamera, nullptr);
    mSession->startSessionWithPreview(mPreview.view);
  }
  void record() {
    if (!mButton.get_active()) return mSupervisor->stop();
    vesk::RecordingSettings settings;
    settings.file = mMovie;
    settings.camera = mCamera;
    mSupervisor->start(settings);
  }
  void onEvent(const vesk::RecordingEvent& event) {
    if (event.error) g_printerr("%s. %s\n", event.error.what.c_str(), event.error.remedy.c_str());
    mPreview.view->setIsRecording(mSupervisor->isActive() ? 1 : 0);  // the label
    mChoice.set_sensitive(!mSupervisor->isActive());
    if (event.kind == vesk::RecordingEventKind::kEnded) mButton.set_active(false);
  }

  const vesk::VeskDeviceListPtr mCameras;
  const std::string mMovie;
  Gtk::HeaderBar mBar;
  Gtk::DropDown mChoice;
  Gtk::ToggleButton mButton{"_Record", true};
  vesk::gtk4::PreviewArea mPreview;
  std::shared_ptr<vesk::VeskVideoDevice> mCamera;
  std::shared_ptr<vesk::VeskPreviewSession> mSession;
  std::shared_ptr<vesk::VeskRecordingSupervisor> mSupervisor =  // goes first: waits until a movie is in its place
      vesk::VeskRecordingSupervisor::initWithEventHandler(
          [this](const vesk::RecordingEvent& event) { onEvent(event); });
};

}  // namespace

int main(int argc, char** argv) {
  const auto cameras = vesk::VeskDeviceManager::getSharedInstance()->getVideoDeviceList();
  if (cameras->empty()) return g_printerr("no camera was found\n"), 1;
  const auto application = Gtk::Application::create();
  const int status = application->make_window_and_run<Window>(0, nullptr, cameras, argc > 1 ? argv[1] : "movie.mov");
  vesk::VeskDeviceManager::destroy();
  return status;
}
