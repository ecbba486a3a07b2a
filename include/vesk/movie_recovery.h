#pragma once

#include <cstdint>
#include <string>

#include <vesk/error.h>
#include <vesk/export.h>

namespace vesk {

enum class RecoveryOutcome {
  kRecovered,         ///< the movie was unfinished and is plain now
  kAlreadyPlain,      ///< left as it is
  kEmpty,             ///< an unfinished movie without any sample; left as it is
  kNothingToRecover,  ///< one that another program writes, or too long for a plain movie; left as it is
  kLocked,            ///< being recorded at this moment; left as it is
  kNotAMovie,         ///< left as it is
  kFailed,            ///< the file could not be opened, read or written, or is damaged where it begins
};

struct RecoveryResult {
  RecoveryOutcome outcome = RecoveryOutcome::kFailed;
  double duration = 0;        ///< seconds
  uint64_t frames = 0;        ///< pictures
  uint64_t fragments = 0;     ///< that the movie was put together from
  uint64_t bytesDropped = 0;  ///< at the end of the file, torn by what stopped the recording
  Error error;                ///< why there is no whole movie now; none when it is recovered, or was plain already
};

/// Makes a plain movie of what a killed program or a power cut left at `path`. Everything up to the
/// last complete sample is in it. The file is changed in place, in steps each of which leaves it as
/// readable as it was, and nothing is cut off; so it may be interrupted and run again. Nothing is
/// changed before it is known that the movie can be finished. A link at the path is not followed.
VESK_EXPORT RecoveryResult recoverMovie(const std::string& path);

}  // namespace vesk
