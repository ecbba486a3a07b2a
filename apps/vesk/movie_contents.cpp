#include "apps/vesk/movie_contents.h"

#include <filesystem>
#include <system_error>

#include <vesk/movie_recovery.h>

namespace vesk::program {

bool holdsPictures(const std::string& movie) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  if (!fs::exists(movie, ignored) || fs::file_size(movie, ignored) == 0) return false;
  const RecoveryResult found = recoverMovie(movie);
  switch (found.outcome) {
    case RecoveryOutcome::kRecovered:
    case RecoveryOutcome::kAlreadyPlain:
      return found.frames != 0 || found.duration * 1e6 >= static_cast<double>(kShortestSound);
    case RecoveryOutcome::kEmpty:
      return false;
    case RecoveryOutcome::kNothingToRecover:
    case RecoveryOutcome::kLocked:
    case RecoveryOutcome::kNotAMovie:
    case RecoveryOutcome::kFailed:
      return true;  // nobody knows: it stays
  }
  return true;
}

}  // namespace vesk::program
