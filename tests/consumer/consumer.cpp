// Lists what is attached, through each of the doors a host uses.
#include <cstdio>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/dispatch_queue.h>
#include <vesk/notification_center.h>
#include <vesk/record_session.h>
#include <vesk/run_loop.h>
#include <vesk/timer.h>
#include <vesk/vci.h>
#include <vesk/video_device.h>

int main() {
  const auto error = vesk::capture::selectSource("simulated", {});
  if (!error.empty()) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const auto manager = vesk::VeskDeviceManager::getSharedInstance();
  const auto cameras = manager->getVideoDeviceList();
  const auto microphones = manager->getAudioDeviceList();
  if (cameras->empty() || microphones->empty()) return 1;
  const auto camera = vesk::VeskVideoDevice::initWithDeviceInfo(cameras->front());
  if (!camera) return 1;

  // Work for the main thread is run by the loop.
  const auto loop = vesk::NSRunLoop::currentRunLoop();
  vesk::DispatchQueue::globalQueue()->async(
      [loop] { vesk::DispatchQueue::mainQueue()->async([loop] { loop->stop(); }); });
  loop->run();
  std::printf("%zu cameras, %zu microphones; the first is \"%s\"\n", cameras->size(), microphones->size(),
              cameras->front()->name().value_or("").c_str());
  vesk::VeskDeviceManager::destroy();
  return 0;
}
