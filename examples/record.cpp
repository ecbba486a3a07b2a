// Records the first camera with its own microphone.
//
//   record OUT.mov [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/record_session.h>
#include <vesk/run_loop.h>
#include <vesk/video_device.h>

namespace {

/// Opens the microphone that is built into the camera, else the first one; null when there is none.
std::shared_ptr<vesk::VeskAudioDevice> openMicrophone(const vesk::VeskDeviceInfo& camera) {
  const auto microphones = vesk::VeskDeviceManager::getSharedInstance()->getAudioDeviceList();
  if (microphones->empty()) return nullptr;
  auto info = microphones->front();
  const std::string own = vesk::capture::microphoneOf(camera.path().value_or(""));
  for (const auto& each : *microphones) {
    if (each->path() == own) info = each;
  }
  auto microphone = vesk::VeskAudioDevice::initWithDeviceInfo(info);
  microphone->openDevice();
  if (const auto formats = microphone->getSupportedFormats()) microphone->setFormat(formats->front());
  return microphone;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return std::fprintf(stderr, "usage: record OUT.mov [SECONDS]\n"), 2;
  const auto cameras = vesk::VeskDeviceManager::getSharedInstance()->getVideoDeviceList();
  if (cameras->empty()) return std::fprintf(stderr, "no camera was found\n"), 1;
  const auto camera = vesk::VeskVideoDevice::initWithDeviceInfo(cameras->front());
  if (camera->openDevice() != 0) return std::fprintf(stderr, "the camera could not be opened\n"), 1;
  camera->setFormat(camera->getSupportedFormats()->front());
  const auto microphone = openMicrophone(*cameras->front());

  const auto session = vesk::VeskRecordSession::initWithVideoDevice(camera, microphone, argv[1]);
  session->setFrameTiming(vesk::FrameTiming::kCapture);
  if (session->startSession() != 0) return std::fprintf(stderr, "the recording could not be started\n"), 1;
  const std::chrono::seconds time(argc > 2 ? std::atoi(argv[2]) : 5);
  vesk::NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + time);
  session->stopSession();

  const auto outcome = session->lastOutcome();
  camera->closeDevice();
  if (microphone) microphone->closeDevice();
  vesk::VeskDeviceManager::destroy();
  if (!outcome.moveError.empty()) return std::fprintf(stderr, "%s\n", outcome.moveError.c_str()), 1;
  std::printf("%s: %llu frames\n", outcome.finalPath.c_str(),
              static_cast<unsigned long long>(outcome.statistics.videoFrames));
}
