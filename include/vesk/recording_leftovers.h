#pragma once

#include <string>
#include <vector>

#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/movie_recovery.h>

namespace vesk {

// What a recording that a crash or a power cut ended leaves: VeskRecordingSupervisor lets a movie grow in a
// hidden folder beside its place, ".NAME.recording-XXXXXX", which then stays. Links and other people's folders
// are not looked at.
//
// Threads: from any thread. Looking reads a folder; finishing reads and writes a movie, which takes a moment.

/// One such folder. Those that are in use are listed too.
struct RecordingLeftover {
  std::string file;      ///< where the movie was to go
  std::string folder;    ///< the hidden folder
  std::string movie;     ///< the unfinished movie in it; empty when there is none
  bool isInUse = false;  ///< a recording is under way in it, or somebody is finishing it
};

/// Those of recordings that were to go to `file`.
VESK_EXPORT std::vector<RecordingLeftover> leftoversOf(const std::string& file);
/// Those of all recordings that were to go into `folder`.
VESK_EXPORT std::vector<RecordingLeftover> leftoversIn(const std::string& folder);

/// What became of a leftover.
struct FinishedLeftover {
  std::string file;         ///< where the movie is now; empty when there is none
  RecoveryResult recovery;  ///< what was found in it
  bool wasEmpty = false;    ///< it held no frame and no sound, and was removed
  Error error;              ///< why it is still where it was: kBusy when it is in use
};

/// Finishes what recordings of `file` left, each for itself, and puts it beside `file`: under that name where it is
/// free and not being recorded, else NAME-2 and so on. What holds nothing is removed with its folder.
/// @return one for each leftover that held a movie, or is in use
VESK_EXPORT std::vector<FinishedLeftover> finishLeftoversOf(const std::string& file);

}  // namespace vesk
