#include <vesk/recording_leftovers.h>

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/foundation/file_manager.h"
#include "sessions/recording_folder.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

/// @return nothing where there was no movie to finish
std::optional<FinishedLeftover> finish(const std::string& file, const LockedLeftover& leftover, bool isFileRecorded) {
  FinishedLeftover finished;
  if (leftover.isInUse) {
    finished.error = {Cause::kBusy, fmt::format("\"{}\" is being recorded at this moment", file),
                      "End that recording first.", file};
    return finished;
  }
  if (leftover.movie.empty()) {
    leftover.removeFolder();
    return std::nullopt;
  }
  finished.recovery = recoverMovie(leftover.movie);
  if (finished.recovery.outcome == RecoveryOutcome::kEmpty) {
    std::error_code ignored;
    fs::remove(leftover.movie, ignored);
    leftover.removeFolder();
    finished.wasEmpty = true;
    return finished;
  }
  finished.error = finished.recovery.error;
  if (finished.error) return finished;
  const std::string target = freeName(file, isFileRecorded ? file : "");  // whose place that is
  NSError error;
  if (!NSFileManager::defaultManager().moveItemAtPath(leftover.movie, target, &error)) {
    finished.error = {
        Cause::kFileError,
        fmt::format("the movie is whole, but it could not be moved to \"{}\": {}", target, error.description),
        fmt::format("It is at \"{}\".", leftover.movie), target};
    return finished;
  }
  giveOrdinaryMode(target);
  leftover.removeFolder();
  finished.file = target;
  return finished;
}

}  // namespace

std::vector<RecordingLeftover> leftoversOf(const std::string& file) {
  std::vector<RecordingLeftover> listed;
  for (const LockedLeftover& found : findLeftovers(file, LeftoverLock::kLook))
    listed.push_back({file, found.folder, found.movie, found.isInUse});
  return listed;
}

std::vector<RecordingLeftover> leftoversIn(const std::string& folder) {
  std::vector<RecordingLeftover> listed;
  for (const LockedLeftover& found : findLeftoversIn(folder, LeftoverLock::kLook)) {
    if (found.movie.empty()) continue;  // its name is in no file, so nobody can ask for it
    listed.push_back({stringByAppendingPathComponent(folder, lastPathComponent(found.movie)), found.folder, found.movie,
                      found.isInUse});
  }
  return listed;
}

std::vector<FinishedLeftover> finishLeftoversOf(const std::string& file) {
  std::vector<FinishedLeftover> all;
  const std::vector<LockedLeftover> leftovers = findLeftovers(file, LeftoverLock::kTake);
  const bool isRecorded =
      std::any_of(leftovers.begin(), leftovers.end(), [](const LockedLeftover& each) { return each.isInUse; });
  for (const LockedLeftover& leftover : leftovers)
    if (auto finished = finish(file, leftover, isRecorded)) all.push_back(std::move(*finished));
  return all;
}

}  // namespace vesk
