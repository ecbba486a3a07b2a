// Records the first camera with its own microphone, so that nothing is lost: a microphone that is unplugged may come
// back, a full disk ends the movie in time, a crash leaves a movie that can be finished.
//
//   record OUT.mov [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <vesk/device_manager.h>
#include <vesk/recording_supervisor.h>
#include <vesk/run_loop.h>

namespace {

using Kind = vesk::RecordingEventKind;

/// Prints events for a person.
void print(const vesk::RecordingEvent& event) {
  if (event.kind == Kind::kStarted) std::printf("recording to %s\n", event.file.c_str());
  if (event.error) std::fprintf(stderr, "%s. %s\n", event.error.what.c_str(), event.error.remedy.c_str());
  if (event.kind != Kind::kMovieFinished) return;
  const vesk::RecordedMovie& movie = *event.movie;
  if (movie.error) std::fprintf(stderr, "%s. %s\n", movie.error.what.c_str(), movie.error.remedy.c_str());
  std::printf("%s: %llu frames\n", movie.file.c_str(), static_cast<unsigned long long>(movie.statistics.videoFrames));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return std::fprintf(stderr, "usage: record OUT.mov [SECONDS]\n"), 2;
  const auto loop = vesk::NSRunLoop::currentRunLoop();
  bool failed = false;
  const auto supervisor = vesk::VeskRecordingSupervisor::initWithEventHandler([&](const vesk::RecordingEvent& event) {
    print(event);
    if (event.kind != Kind::kEnded) return;
    failed = static_cast<bool>(event.error);
    loop->stop();
  });

  vesk::RecordingSettings settings;
  settings.file = argv[1];
  settings.duration = argc > 2 ? std::atof(argv[2]) : 5;
  supervisor->start(settings);
  loop->run();  // until kEnded

  vesk::VeskDeviceManager::destroy();
  return failed ? 1 : 0;
}
