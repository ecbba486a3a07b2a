#pragma once

#include <cstdint>
#include <string>

#include <vesk/error.h>

namespace vesk {

/// Why a platform operation failed.
struct NSError {
  int64_t code = 0;         ///< 0 when there is no error
  std::string description;  ///< one sentence for a person, without its full stop: what failed, and on which file
  Cause cause = Cause::kOther;
  std::string path;  ///< the file or folder that it is about; empty where none is
  explicit operator bool() const { return code != 0; }
};

}  // namespace vesk
