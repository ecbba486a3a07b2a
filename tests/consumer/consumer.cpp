// Uses one operation of each interface that hosts are offered, against an installed libvesk: whatever is declared
// and not exported shows here. Prints what failed; the exit status is the number.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <vesk/vesk.h>

namespace {

int failures = 0;

void expect(bool holds, const char* what) {
  if (holds) return;
  ++failures;
  std::fprintf(stderr, "does not hold: %s\n", what);
}

struct Receiver : vesk::VeskAVDeviceDelegate,
                  vesk::VeskMicLevelDelegate,
                  vesk::DecoderProtocol,
                  vesk::VeskPreviewSessionDelegate {
  void didCaptureFrame(void*, uint32_t, int64_t, const std::shared_ptr<vesk::VeskDeviceInfo>&) override {}
  void didMicLevelEventOccured(float) override {}
  void displayData(vesk::CVImageBufferRef) override { ++images; }
  void audioGainChanged(float) override {}
  int images = 0;
};

/// A camera of the host's own, which links only when the base classes are exported.
struct OwnCamera : vesk::capture::CaptureDevice {
  int32_t start(uint32_t, vesk::capture::FrameCallback) override { return 0; }
  int32_t stop(uint32_t) override { return 0; }
};
struct OwnSource : vesk::capture::CaptureSource {
  void setHotplugHandler(HotplugHandler) override {}
  std::vector<vesk::capture::DeviceDescription> devices(vesk::capture::DeviceKind) override { return {}; }
  std::unique_ptr<vesk::capture::CaptureDevice> open(vesk::capture::DeviceKind, const std::string&) override {
    return std::make_unique<OwnCamera>();
  }
};

void basics() {
  expect(std::strcmp(vesk::version(), VESK_VERSION_STRING) == 0, "the library is the one of the headers");
  expect(vesk::causeName(vesk::Cause::kBusy) == "busy", "causes have names");
  char16_t text[8];
  vesk::unistr_fromUTF8("vesk", text);
  expect(vesk::unistr_length(text) == 4, "UTF-16 helpers");
  expect(vesk::CMTimeCompare(vesk::CMTimeMake(1, 30), vesk::CMTimeMake(2, 60)) == 0, "times");
  expect(OwnSource().open(vesk::capture::DeviceKind::kVideo, "")->setVideoParameters({}) != 0, "a camera of one's own");
  expect(!vesk::diagnose().empty(), "the doctor");

  // Work for the main thread is run by the loop.
  const auto loop = vesk::NSRunLoop::currentRunLoop();
  vesk::DispatchQueue::globalQueue()->async(
      [loop] { vesk::DispatchQueue::mainQueue()->async([loop] { loop->stop(); }); });
  loop->run();
  vesk::DispatchQueue::mainQueue()->asyncAfter(std::chrono::milliseconds(1), [loop] { loop->stop(); });
  loop->run();
}

void cInterface() {
  expect(VCI_Init() == kVCISuccess && ACI_Init() == kVCISuccess, "the C interface starts");
  uint32_t size = 0, count = 0;
  expect(VCI_Enum_Devices(nullptr, &size, &count) == kVCIMoreData && count > 0, "cameras through the C interface");
  expect(ACI_Enum_Devices(nullptr, &size, &count) == kVCIMoreData && count > 0, "microphones through the C interface");
  ACI_Cleanup();
  VCI_Cleanup();
}

void devicesAndSessions(const std::string& folder) {
  const auto receiver = std::make_shared<Receiver>();
  const auto manager = vesk::VeskDeviceManager::getSharedInstance();
  const auto watch = vesk::NSNotificationCenter::defaultCenter().addObserver(vesk::KVXDeviceAdded, [](const auto&) {});
  const auto cameras = manager->getVideoDeviceList();
  const auto microphones = manager->getAudioDeviceList();
  if (cameras->empty() || microphones->empty()) return expect(false, "simulated devices");
  expect(vesk::VeskAVDevice::newDevice(cameras->front()) != nullptr, "a device for a record");

  const auto camera = vesk::VeskVideoDevice::initWithDeviceInfo(cameras->front());
  expect(camera->openDevice() == 0, "a camera opens");
  camera->addDelegate(receiver);
  camera->removeDelegate(receiver);
  camera->setFormat(camera->getSupportedFormats()->front());
  expect(camera->getBrightnessMax().has_value() && !vesk::cameraControls().empty(), "controls");
  const auto microphone = vesk::VeskAudioDevice::initWithDeviceInfo(microphones->front());
  expect(microphone->openDevice() == 0, "a microphone opens");
  microphone->setFormat(microphone->getSupportedFormats()->front());

  const auto preview = vesk::VeskPreviewSession::initWithDevice(camera, receiver.get());
  expect(preview->openSession() == 0 && !preview->isRunning(), "a preview session");
  const auto recorder = vesk::VeskRecorder::init();
  expect(!recorder->isRecording(), "a recorder");
  const auto session = vesk::VeskRecordSession::initWithVideoDevice(camera, microphone, folder + "/session.mov");
  expect(session->startSession() == 0 && session->stopSession() == 0, "a record session");
  camera->closeDevice();
  microphone->closeDevice();
  const auto supervisor = vesk::VeskRecordingSupervisor::initWithEventHandler({});
  expect(!supervisor->isActive() && vesk::VeskRecordingSupervisor::checkFile(folder), "a supervisor");
  expect(vesk::leftoversIn(folder).empty() && vesk::finishLeftoversOf(folder + "/session.mov").empty(), "leftovers");
  expect(vesk::defaultCamera() && vesk::defaultMicrophone() && vesk::chooseVideoFormat(*camera).format, "choices");
  vesk::capture::Transport::shared().setLimit(std::nullopt);
  expect(vesk::recoverMovie(folder + "/none.mov").outcome == vesk::RecoveryOutcome::kFailed, "recovery");
}

void moviesAndImages(const std::string& folder) {
  const auto creator = vesk::CreateMovieCreator((folder + "/creator.mov").c_str());
  const vesk::_VeskAudioDescription sound{0x636D, 1, 48000, 16};
  expect(creator && creator->Open(nullptr, &sound) == 0 && creator->Close() == 0, "a movie creator");
  expect(vesk::VeskMovieAssetCreator(folder + "/asset.mov").Open(nullptr, &sound) == 0, "a movie asset creator");
  vesk::AVAssetWriterAdapter(folder + "/adapter.mov", false, true).finish();
  const std::array<uint8_t, 960> silence{};
  vesk::PCMAudioSampleGenerator pcm(48000, 1, 16);
  expect(pcm.CreateSample(silence.data(), silence.size(), 1) != nullptr, "PCM samples");
  vesk::AACAudioSampleGenerator(48000, 1).CreateSample(silence.data(), 8, 1);
  vesk::H264SampleGenerator(16, 16, 30).CreateSample(silence.data(), 8, 1);
  vesk::UncompressedSampleGenerator(16, 16, 30).CreateSample(silence.data(), 512, 1);
  uint8_t unit[] = {0, 0, 0, 1, 0x67, 1, 2, 3};
  vesk::ConvertStreamToBoxFormat(unit, sizeof unit);
  const uint8_t* found = nullptr;
  uint32_t length = 0;
  expect(vesk::FindNALUnit(7, std::as_const(unit), sizeof unit, &length, &found) && length == 4, "bitstream functions");

  Receiver receiver;
  const auto decoder = vesk::ICMDecoder::initWithWidth(4, 2, vesk::kCMPixelFormat_422YpCbCr8);
  decoder->setDelegate(&receiver);
  expect(decoder->decompressData(silence.data(), 16, 0) == 0 && receiver.images == 1, "a decoder");

  const auto image =
      vesk::CIImage::imageWithCVImageBuffer(vesk::CVPixelBuffer::create(4, 2, vesk::kCMPixelFormat_422YpCbCr8));
  const auto bitmap = vesk::NSBitmapImageRep::initWithCIImage(image);
  expect(bitmap && !bitmap->representationUsingType(vesk::NSJPEGFileType).empty(), "a picture file");
  expect(vesk::CMBlockBuffer::create(8) != nullptr, "memory of samples");
  expect(!vesk::PropertyList::dictionaryWithData({}).has_value(), "property lists");
  vesk::NSBundle::mainBundle();

  const auto view = vesk::VeskPreviewView::initWithFrame({0, 0, 64, 48});
  view->setImage(nullptr);
  expect(view->previewState() == 0, "a preview view");
  const auto label = vesk::GLString::initWithString("label", {});
  expect(label->frameSize().width > 0, "a label");
  expect(!vesk::NSBezierPath::bezierPathWithRoundedRect({0, 0, 8, 8}, 2).segments().empty(), "a path");
  vesk::CameraStatusDisplay().setViewSize({64, 48});

  vesk::NSError error;
  const auto document = vesk::SMXMLReader::dictionaryForXMLString("<a><b>1</b></a>", &error);
  expect(document && document->retrieveForPath("a.b").has_value(), "an XML reader");
  expect(vesk::SMResolutionInfo::initWithFilepath(folder + "/none.xml", 1) == nullptr ||
             !vesk::SMResolutionInfo::initWithFilepath(folder + "/none.xml", 1)->isCodecSupported("avc1"),
         "a resolution catalogue");
}

}  // namespace

int main() {
  const auto folder = std::filesystem::temp_directory_path() / ("vesk-consumer-" + std::to_string(getpid()));
  std::filesystem::create_directories(folder);
  vesk::setLogSink([](auto&&...) {});  // the library's lines stay out of the results
  if (vesk::capture::selectSource("simulated", {})) return 1;
  basics();
  cInterface();
  devicesAndSessions(folder.string());
  moviesAndImages(folder.string());
  vesk::VeskDeviceManager::destroy();
  std::filesystem::remove_all(folder);
  std::printf("%s\n", failures == 0 ? "every interface answers" : "some interfaces do not answer");
  return failures;
}
