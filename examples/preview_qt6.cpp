// Shows a camera live in a window of Qt 6, with a choice of cameras and a button that records.
//
//   preview_qt6 [MOVIE.mov]      Alt+R records, Escape ends
#include <QtWidgets/QtWidgets>

#include <vesk/qt6.h>
#include <vesk/vesk.h>

namespace {

struct Window : QMainWindow {
  const QString movie = QCoreApplication::arguments().value(1, "movie.mov");
  vesk::VeskDeviceListPtr cameras = vesk::VeskDeviceManager::getSharedInstance()->getVideoDeviceList();
  vesk::qt6::PreviewWidget* preview = new vesk::qt6::PreviewWidget;
  QComboBox* choice = new QComboBox;
  QPushButton* button = new QPushButton("&Record");
  std::shared_ptr<vesk::VeskVideoDevice> camera;
  std::shared_ptr<vesk::VeskPreviewSession> session;
  std::shared_ptr<vesk::VeskRecordingSupervisor> supervisor = vesk::VeskRecordingSupervisor::initWithEventHandler(
      [this](const vesk::RecordingEvent& event) { onEvent(event); });

  Window() {
    for (const auto& info : *cameras) choice->addItem(QString::fromStdString(info->name().value_or("Camera")));
    button->setCheckable(true);
    new QShortcut(Qt::Key_Escape, this, [this] { close(); });
    connect(choice, &QComboBox::currentIndexChanged, this, &Window::choose);
    connect(button, &QPushButton::toggled, this, &Window::record);
    QToolBar* const bar = addToolBar("Camera");
    bar->addWidget(choice);
    bar->addWidget(button);
    setCentralWidget(preview);
    resize(800, 500);
  }

  void choose(int index) {
    if (session) session->closeSession();
    camera = vesk::VeskVideoDevice::initWithDeviceInfo(cameras->at(static_cast<size_t>(index)));
    if (camera->openDevice() != 0) return qWarning("%s", camera->lastError().what.c_str());
    vesk::chooseVideoFormat(*camera);
    session = vesk::VeskPreviewSession::initWithDevice(camera, nullptr);
    session->startSessionWithPreview(preview->view);
  }

  void record(bool isOn) {
    if (!isOn) return supervisor->stop();
    vesk::RecordingSettings settings;
    settings.file = movie.toStdString();
    settings.camera = camera;
    supervisor->start(settings);
  }

  void onEvent(const vesk::RecordingEvent& event) {
    if (event.error) qWarning("%s. %s", event.error.what.c_str(), event.error.remedy.c_str());
    preview->view->setIsRecording(supervisor->isActive() ? 1 : 0);  // the label
    choice->setEnabled(!supervisor->isActive());
    if (event.kind == vesk::RecordingEventKind::kEnded) button->setChecked(false);
  }
};

}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  // Where Qt does not run on GLib (QT_NO_GLIB=1), the library's events are served from here.
  QTimer turns;
  turns.callOnTimeout([] { vesk::NSRunLoop::currentRunLoop()->runUntilDate({}); });
  if (!QAbstractEventDispatcher::instance()->inherits("QEventDispatcherGlib")) turns.start(5);
  Window window;
  if (window.cameras->empty()) return qWarning("no camera was found"), 1;
  window.setWindowTitle("Camera");
  window.choose(0);
  window.show();
  application.exec();
  window.supervisor.reset();  // waits until a movie under way is in its place
  window.session->closeSession();
  vesk::VeskDeviceManager::destroy();
  return 0;
}
