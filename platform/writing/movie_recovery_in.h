#pragma once

#include <string>

#include <vesk/movie_recovery.h>
#include "platform/writing/file_system.h"

namespace vesk {

/// recoverMovie for a movie that may lie elsewhere than on the machine's disks.
RecoveryResult recoverMovieIn(FileSystem& fileSystem, const std::string& path);

}  // namespace vesk
