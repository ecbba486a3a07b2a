#include "apps/camera/film_recording.h"

#include "apps/camera/file_names.h"
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

using Kind = RecordingEventKind;

std::string nameOf(const RecordingEvent& event) {
  return event.device ? event.device->name().value_or("") : "";
}

}  // namespace

FilmRecording::FilmRecording(LiveCapture& capture)
    : mCapture(capture),
      mSupervisor(
          VeskRecordingSupervisor::initWithEventHandler([this](const RecordingEvent& event) { onEvent(event); })) {}

Error FilmRecording::start(const std::string& folder) {
  if (!mCapture.camera()) {
    if (mCapture.error()) return mCapture.error();
    return {Cause::kNoDevice, "there is no camera to film with", "Plug one in."};
  }
  if (Error error = makeFolder(folder)) return error;
  RecordingSettings settings;
  settings.file = newFileName(folder, _("Film"), ".mov");
  if (Error error = VeskRecordingSupervisor::checkFile(settings.file)) return error;
  settings.waitsForCamera = true;
  settings.camera = mCapture.camera();
  settings.microphone = mCapture.microphone();
  // One that a slow sound server is still opening is opened for the film too, which would have no sound otherwise.
  auto coming = settings.microphone ? nullptr : mCapture.wantedMicrophone();
  if (coming) settings.findMicrophone = [coming] { return coming; };
  settings.withSound = settings.microphone || coming;
  mIsActive = true;
  mCapture.setRecording(true);
  mSupervisor->start(settings);
  mChanged.emit();
  return {};
}

void FilmRecording::onEvent(const RecordingEvent& event) {
  if (event.kind == Kind::kWaiting) mIsWaiting = true;
  if (event.kind == Kind::kStarted || event.kind == Kind::kEnded) mIsWaiting = false;
  if (event.kind == Kind::kStarted) {
    mCapture.adopt(mSupervisor->camera());
    mStarted.emit();
  }
  say(event);
  if (event.kind == Kind::kMovieFinished && !event.movie->file.empty() && !event.movie->isLeft)
    mFinished.emit(*event.movie);
  if (event.kind == Kind::kEnded) {
    mIsActive = false;
    mCapture.setRecording(false);
  }
  mChanged.emit();
}

/// What is over takes its message away; what lasts stands until then.
void FilmRecording::say(const RecordingEvent& event) {
  const auto problem = [&](const char* id, const std::string& text) {
    mMessage.emit({id, Message::Kind::kProblem, text, {}});
  };
  switch (event.kind) {
    case Kind::kStarted:
      for (const char* id : {"film-camera", "film-frames"}) mMessageGone.emit(id);
      return;
    case Kind::kCameraRemoved:
      mMessageGone.emit("film-sound");  // a microphone that went along with the camera is of the film that ends
      return problem(
          "film-camera",
          filled(_("“{}” was unplugged. What was filmed is kept. Plug it in again, and it goes on in the next film."),
                 nameOf(event)));
    case Kind::kMicrophoneRemoved:
      return problem("film-sound",
                     filled(_("“{}” was unplugged. The film goes on without sound. Plug it in again."), nameOf(event)));
    case Kind::kMicrophoneReturned:
      if (!event.error) return mMessageGone.emit("film-sound");
      return problem("film-sound", sentences(event.error));
    case Kind::kFramesResumed:
      return mMessageGone.emit("film-frames");
    case Kind::kFramesStalled:
      return problem("film-frames", sentences(event.error));
    case Kind::kSoundMissing:
    case Kind::kSoundQuiet:
    case Kind::kSoundStalled:
      return problem("film-sound", sentences(event.error));
    case Kind::kDiskFilling:
      return problem("disk", filled(_("The disk is nearly full: {}. Make room on it; otherwise the film ends then."),
                                    timeLeftText(progress().secondsLeftOnDisk.value_or(0))));
    case Kind::kMovieFinished:
      if (event.movie->error) problem("film", sentences(event.movie->error));
      if (event.movie->missing) problem("film-missing", sentences(event.movie->missing));
      return;
    case Kind::kEnded:
      for (const char* id : {"film-camera", "film-frames", "film-sound"}) mMessageGone.emit(id);
      if (event.error) problem("film", sentences(event.error));
      return;
    case Kind::kNotContinued:
      return problem("film", sentences(event.error));
    case Kind::kContinued:
    case Kind::kWaiting:  // said by kCameraRemoved
      return;
  }
}

}  // namespace vesk::camera
