#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "doctor/checks.h"

namespace vesk::capture {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMicrophone = "microphone";

/// The names of the folder's entries that begin and end so.
std::vector<std::string> entriesOf(const std::string& folder, const std::string& begin, char last) {
  std::vector<std::string> names;
  std::error_code error;
  fs::directory_iterator entry(folder, error);
  for (const fs::directory_iterator end; !error && entry != end; entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (name.starts_with(begin) && name.back() == last) names.push_back(std::move(name));
  }
  return names;
}

/// The files that sound is recorded from, where no server stands between.
void checkFiles(const DiagnosisPlaces& places, Findings& findings) {
  for (const std::string& name : entriesOf(places.sys + "/class/sound", "pcmC", 'c')) {
    const std::string file = places.dev + "/snd/" + name;
    std::error_code ignored;
    if (!fs::exists(file, ignored)) {
      findings.problem(kMicrophone, Cause::kNoDevice, {FindingKind::kSoundFileMissing, {.files = {file}}},
                       "the kernel has a sound card, but " + file + " is not there.",
                       "In a container, pass it in (as with --device " + places.dev + "/snd).");
    } else if (access(file.c_str(), R_OK | W_OK) != 0) {
      addRefusal(kMicrophone, file, errno, findings);
    }
  }
}

const DiagnosedCamera* cameraOf(const Microphone& microphone, const std::vector<DiagnosedCamera>& cameras) {
  for (const DiagnosedCamera& camera : cameras)
    if (!microphone.usbParent.empty() && camera.usbFolder == microphone.usbParent) return &camera;
  return nullptr;
}

}  // namespace

void checkSound(const DiagnosisPlaces& places, const SoundSystems& sound, const std::vector<DiagnosedCamera>& cameras,
                Findings& findings) {
  if (sound.server) {
    findings.ok(kMicrophone, {FindingKind::kSoundServer}, "a sound server answers.");
  } else {
    findings.note(kMicrophone, {FindingKind::kNoSoundServer},
                  "no sound server answers: sound is recorded from the drivers, one program at a time.",
                  "Start PipeWire or PulseAudio in this session if other programs record too.", Cause::kNoSoundServer);
    checkFiles(places, findings);
  }
  const auto& system = sound.server ? sound.server : sound.drivers;
  const std::vector<Microphone> microphones = system ? system->microphones() : std::vector<Microphone>();
  for (const Microphone& microphone : microphones) {
    const DiagnosedCamera* const camera = cameraOf(microphone, cameras);
    Finding::Details details{.device = microphone.description.name};
    if (camera) details.others.push_back(camera->name);
    findings.ok(
        kMicrophone, {FindingKind::kMicrophone, details},
        "\"" + microphone.description.name + "\"" + (camera ? ", which is built into \"" + camera->name + "\"." : "."));
  }
  if (microphones.empty())
    findings.note(kMicrophone, {FindingKind::kNoMicrophone}, "no microphone was found: movies have no sound.",
                  "Plug one in, or see that it is not switched off in the settings of the sound server.",
                  Cause::kNoDevice);
}

}  // namespace vesk::capture
