#pragma once

#include <optional>
#include <string>

#include "apps/vesk/program.h"

namespace vesk::program {

struct DevicesOptions {
  bool watch = false;
};

struct FormatsOptions {
  std::string camera;
  std::string microphone;
};

struct RecordOptions {
  std::string file;
  std::string camera;
  std::string microphone;
  std::string format;
  std::string sound;
  std::optional<double> duration;  ///< seconds of movie
  bool noAudio = false;
  bool force = false;
  bool wait = false;  ///< for a camera that is not there, and for one that goes
};

struct SnapshotOptions {
  std::string file;
  std::string camera;
  std::string format;
  double delay = 0.5;  ///< seconds from the start: cameras take a moment to find their exposure
  bool force = false;
};

struct PreviewOptions {
  std::string camera;
  std::string microphone;
  std::string format;
  std::string sound;
  std::string screenshot;  ///< empty: none
  std::string record;      ///< empty: nothing is recorded at first
  std::optional<double> duration;
  bool noAudio = false;
  bool force = false;
};

struct MeterOptions {
  std::string microphone;
  std::optional<double> duration;
};

struct RecoverOptions {
  std::string file;
};

struct ControlsOptions {
  enum class Action { kList, kGet, kSet, kReset, kSave, kLoad, kKeep };

  Action action = Action::kList;
  std::string camera;
  std::string name;   ///< of the control; of a reset empty for all
  std::string value;  ///< a number, "on", "off", "default" or "auto"
  std::string file;
  bool force = false;  ///< a save replaces the file
};

struct NudgeOptions {
  std::string direction;  ///< "left", "right", "up", "down" or "reset"
  std::string camera;
  int times = 1;
};

struct InfoOptions {
  std::string camera;
};

struct ResolutionsOptions {
  std::string file;
  std::string product;  ///< in hexadecimal digits
  std::string codec;    ///< empty: all
};

enum class PictureKind { kJPEG, kPNG };

/// Refuses what would fail once a picture is there: a folder, a name that says another kind of picture, a file
/// that is in the way, a folder that is missing. @throws Failure
void checkPictureTarget(const std::string& file, bool force, PictureKind kind);

// Each command answers its exit status, or throws Failure.
int runDevices(const GlobalOptions& global, const DevicesOptions& options);
int runFormats(const GlobalOptions& global, const FormatsOptions& options);
int runRecord(const GlobalOptions& global, const RecordOptions& options);
int runSnapshot(const GlobalOptions& global, const SnapshotOptions& options);
int runPreview(const GlobalOptions& global, const PreviewOptions& options);
int runMeter(const GlobalOptions& global, const MeterOptions& options);
int runRecover(const GlobalOptions& global, const RecoverOptions& options);
int runControls(const GlobalOptions& global, const ControlsOptions& options);
int runKeep(const GlobalOptions& global, const ControlsOptions& options);  ///< "controls keep"
int runNudge(const GlobalOptions& global, const NudgeOptions& options);
int runInfo(const GlobalOptions& global, const InfoOptions& options);
int runDoctor(const GlobalOptions& global);
int runResolutions(const GlobalOptions& global, const ResolutionsOptions& options);

}  // namespace vesk::program
