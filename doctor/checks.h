#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vesk/doctor.h>
#include "capture/linux/nodes/v4l2_calls.h"
#include "capture/linux/sound/sound_system.h"

namespace vesk::capture {

/// Where a diagnosis looks. Tests have folders of their own there.
struct DiagnosisPlaces {
  std::string dev = "/dev";
  std::string sys = "/sys";
  std::string proc = "/proc";
};

using FindingKind = Finding::Kind;

/// What has been found so far.
class Findings {
 public:
  /// A finding without the words for it.
  struct What {
    FindingKind kind = FindingKind::kOther;
    Finding::Details details = {};
  };

  void ok(const char* subject, What what, std::string text) {
    add(Finding::Mark::kOk, subject, std::move(what), std::move(text), "", Cause::kNone);
  }
  void note(const char* subject, What what, std::string text, std::string remedy = "", Cause cause = Cause::kOther) {
    add(Finding::Mark::kNote, subject, std::move(what), std::move(text), std::move(remedy), cause);
  }
  void problem(const char* subject, Cause cause, What what, std::string text, std::string remedy) {
    add(Finding::Mark::kProblem, subject, std::move(what), std::move(text), std::move(remedy), cause);
  }
  std::vector<Finding> take() { return std::move(mFindings); }

 private:
  void add(Finding::Mark mark, const char* subject, What what, std::string text, std::string remedy, Cause cause) {
    mFindings.push_back({mark, subject, std::move(text), std::move(remedy), cause, what.kind, std::move(what.details)});
  }

  std::vector<Finding> mFindings;
};

/// A camera as the checks of other things need to know it.
struct DiagnosedCamera {
  std::string name;
  std::string usbFolder;  ///< of its USB device in sysfs, links resolved; empty when it has none
};

/// Nodes, rights, users and formats of the cameras, and their USB buses.
/// @param hasEncoder whether pictures can be encoded to H.264 here
std::vector<DiagnosedCamera> checkCameras(const DiagnosisPlaces& places, V4L2Calls& calls, bool hasEncoder,
                                          Findings& findings);

/// What there is for sound.
struct SoundSystems {
  std::shared_ptr<SoundSystem> server;   ///< null when none answers
  std::shared_ptr<SoundSystem> drivers;  ///< asked only when there is no server
};

void checkSound(const DiagnosisPlaces& places, const SoundSystems& sound, const std::vector<DiagnosedCamera>& cameras,
                Findings& findings);

/// Why a device file cannot be used, and the remedy: the rights on it and the groups of this process.
/// @param error of the attempt to open it
void addRefusal(const char* subject, const std::string& file, int error, Findings& findings);

/// A small file of sysfs, without its end of line; empty when there is none.
std::string sysfsText(const std::string& file);

}  // namespace vesk::capture
