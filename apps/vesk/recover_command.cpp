#include <fmt/core.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include <vesk/recording_leftovers.h>
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "apps/vesk/recording_report.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

/// @throws Failure when the movie is not whole now.
void check(const RecoveryResult& result) {
  if (result.error) throw Failure(result.error.cause == Cause::kBusy ? kBusy : kFailed, result.error);
}

void report(const GlobalOptions& global, const std::string& path, const RecoveryResult& result) {
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

/// Finishes what recordings of `path` left: one that is empty, in use or broken does not stand in the way of the
/// others. @return whether any was finished. @throws Failure when none was, for the last one's reason
bool finishLeftovers(const GlobalOptions& global, const std::string& path) {
  std::optional<Failure> failure;
  const auto printFailure = [&failure] {
    if (failure) reportLine("vesk: {} {}", failure->what(), failure->hint);
  };
  bool isAnyFinished = false;
  for (const FinishedLeftover& finished : finishLeftoversOf(path)) {
    if (finished.error) {
      printFailure();
      failure = failureOf(finished.error);
    } else if (finished.wasEmpty) {
      reportLine("vesk: removed a recording of \"{}\" that held no picture and no sound", path);
    } else {
      report(global, finished.file, finished.recovery);
      isAnyFinished = true;
    }
  }
  if (!isAnyFinished && failure) throw Failure(*failure);
  printFailure();
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
  report(global, options.file, result);
  return kDone;
}

}  // namespace vesk::program
