#include <fmt/core.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/recording_folder.h"
#include "platform/foundation/file_manager.h"
#include "platform/writing/movie_recovery.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

/// Finishes the movie at `path`. @throws Failure when there is nothing that can be read in it.
RecoveryResult finish(const std::string& path) {
  RecoveryResult result = recoverMovie(path);
  switch (result.outcome) {
    case RecoveryOutcome::kAlreadyPlain:
    case RecoveryOutcome::kRecovered:
      return result;
    case RecoveryOutcome::kLocked:
      throw Failure(kBusy, result.text, "End that recording first (Ctrl-C).");
    case RecoveryOutcome::kNothingToRecover:
      throw Failure(kFailed, result.text, "The recording ended before its first second was written.");
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
    fmt::print("{}: recovered, {:.2f} s, {} pictures\n", path, result.duration, result.frames);
  else
    fmt::print("{}: whole already, nothing to do\n", path);
}

/// Finishes what recordings of `path` left in their hidden folders, and puts it beside `path`: under
/// its own name when that is free.
void finishLeftovers(const GlobalOptions& global, const std::string& path, const std::vector<std::string>& leftovers) {
  for (const std::string& leftover : leftovers) {
    const RecoveryResult result = finish(leftover);
    std::string target = path;
    const fs::path wanted(path);
    std::error_code ignored;
    for (int number = 2; fs::exists(target, ignored); ++number)
      target =
          (wanted.parent_path() / fmt::format("{}-{}{}", wanted.stem().string(), number, wanted.extension().string()))
              .string();
    NSError error;
    if (!NSFileManager::defaultManager().moveItemAtPath(leftover, target, &error))
      throw Failure(
          kFailed,
          fmt::format("the movie is whole, but it could not be moved to \"{}\": {}.", target, error.description),
          fmt::format("It is at \"{}\".", leftover));
    rmdir(fs::path(leftover).parent_path().c_str());
    tell(global, target, result);
  }
}

}  // namespace

int runRecover(const GlobalOptions& global, const RecoverOptions& options) {
  setUpLogLines(global.verbose);
  const auto leftovers = findLeftovers(options.file);
  if (!leftovers.empty()) {
    finishLeftovers(global, options.file, leftovers);
    return kDone;
  }
  std::error_code ignored;
  if (!fs::exists(options.file, ignored))
    throw Failure(kFailed,
                  fmt::format("there is no \"{}\", and no unfinished recording of it beside it.", options.file),
                  "Name the movie that was being recorded.");
  tell(global, options.file, finish(options.file));
  return kDone;
}

}  // namespace vesk::program
