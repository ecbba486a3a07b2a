#include <fmt/core.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <vector>

#include <vesk/movie_recovery.h>
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "apps/vesk/recording_folder.h"
#include "platform/foundation/file_manager.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

/// @throws Failure when the movie is not whole now.
void check(const RecoveryResult& result) {
  switch (result.outcome) {
    case RecoveryOutcome::kAlreadyPlain:
    case RecoveryOutcome::kRecovered:
      return;
    case RecoveryOutcome::kLocked:
      throw Failure(kBusy, result.text, "End that recording first (Ctrl-C).");
    case RecoveryOutcome::kEmpty:
      throw Failure(kFailed, result.text, "The recording ended before its first second was written.");
    case RecoveryOutcome::kNothingToRecover:
    case RecoveryOutcome::kNotAMovie:
      throw Failure(kFailed, result.text, "Name a movie that vesk record has made.");
    case RecoveryOutcome::kFailed:
      break;
  }
  throw Failure(kFailed, result.text, "The file was left as it was; copy it to another disk and try there.");
}

void tell(const GlobalOptions& global, const std::string& path, const RecoveryResult& result) {
  const bool isRecovered = result.outcome == RecoveryOutcome::kRecovered;
  if (global.json) {
    printJson({{"file", path}, {"recovered", isRecovered}, {"duration", result.duration}, {"frames", result.frames}});
    return;
  }
  if (isRecovered)
    printLine("{}: recovered, {:.2f} s, {} pictures", path, result.duration, result.frames);
  else
    printLine("{}: whole already, nothing to do", path);
}

/// `path`, or NAME-2, NAME-3 and so on where something is there already.
std::string freePlace(const std::string& path) {
  const fs::path wanted(path);
  std::string target = path;
  std::error_code ignored;
  for (int number = 2; fs::exists(fs::symlink_status(target, ignored)); ++number)
    target =
        (wanted.parent_path() / fmt::format("{}-{}{}", wanted.stem().string(), number, wanted.extension().string()))
            .string();
  return target;
}

/// What is to be said of a recording that is under way, or that another command is finishing.
Failure stillRecorded(const std::string& path) {
  return {kBusy, fmt::format("\"{}\" is being recorded at this moment.", path), "End that recording first (Ctrl-C)."};
}

/// Finishes one movie and puts it beside the final path: under its own name when that is free. What
/// holds nothing is removed, with the space that was set aside for it.
/// @return whether there is a movie now. @throws Failure
bool finishLeftover(const GlobalOptions& global, const std::string& path, const Leftover& leftover) {
  if (leftover.isInUse) throw stillRecorded(path);
  if (leftover.movie.empty()) {
    leftover.removeFolder();
    return false;
  }
  const RecoveryResult result = recoverMovie(leftover.movie);
  if (result.outcome == RecoveryOutcome::kEmpty) {
    std::error_code ignored;
    fs::remove(leftover.movie, ignored);
    leftover.removeFolder();
    sayLine("vesk: removed a recording of \"{}\" that held no picture and no sound", path);
    return false;
  }
  check(result);
  const std::string target = freePlace(path);
  NSError error;
  if (!NSFileManager::defaultManager().moveItemAtPath(leftover.movie, target, &error))
    throw Failure(
        kFailed, fmt::format("the movie is whole, but it could not be moved to \"{}\": {}.", target, error.description),
        fmt::format("It is at \"{}\".", leftover.movie));
  giveOrdinaryMode(target);
  leftover.removeFolder();
  tell(global, target, result);
  return true;
}

/// Finishes what recordings of `path` left in their hidden folders, each for itself: one that is
/// empty, in use or broken does not stand in the way of the others.
/// @return whether any was finished. @throws Failure when none was, for the last one's reason
bool finishLeftovers(const GlobalOptions& global, const std::string& path) {
  std::optional<Failure> failure;
  const auto tellFailure = [&failure] {
    if (failure) sayLine("vesk: {} {}", failure->what(), failure->hint);
  };
  bool isAnyFinished = false;
  for (const Leftover& leftover : findLeftovers(path, LeftoverLock::kTake)) {
    try {
      if (finishLeftover(global, path, leftover)) isAnyFinished = true;
    } catch (const Failure& one) {
      tellFailure();
      failure = one;
    }
  }
  if (!isAnyFinished && failure) throw Failure(*failure);
  tellFailure();
  return isAnyFinished;
}

}  // namespace

int runRecover(const GlobalOptions& global, const RecoverOptions& options) {
  setUpLogLines(global.verbose);
  std::error_code ignored;
  if (fs::is_directory(options.file, ignored))
    throw Failure(kWrongUse, fmt::format("\"{}\" is a folder.", options.file),
                  "Name the movie that was being recorded.");
  if (finishLeftovers(global, options.file)) return kDone;
  if (!fs::exists(options.file, ignored))
    throw Failure(kFailed, fmt::format("no recording of \"{}\" is left to be finished.", options.file),
                  "Name the movie that was being recorded.");
  // Recovery follows no link; the one that a person named is theirs.
  const fs::path file = fs::canonical(options.file, ignored);
  const RecoveryResult result = recoverMovie(file.empty() ? options.file : file.string());
  check(result);
  tell(global, options.file, result);
  return kDone;
}

}  // namespace vesk::program
