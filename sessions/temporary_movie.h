#pragma once

#include <optional>
#include <string>

#include "platform/foundation/export.h"

namespace vesk {

/// The path in the temporary folder at which a movie is written before it goes to its final place:
/// the final name, or "name 2", "name 3" and so on while that one is taken. Taken are the movies of
/// other recordings of this process, and those which could not be moved and are still there: opening
/// a movie deletes what is at its path.
///
/// Threads: paths are reserved and given back from any thread.
class VESK_LOCAL TemporaryMovie {
 public:
  /// A path for the movie that ends up at `finalPath`; none when that names no file.
  static std::optional<TemporaryMovie> reserve(const std::string& finalPath);
  /// Gives the path back.
  ~TemporaryMovie();
  TemporaryMovie(TemporaryMovie&& other) noexcept;
  TemporaryMovie& operator=(TemporaryMovie&&) = delete;

  const std::string& path() const { return mPath; }

  /// Moves the movie to `finalPath`, where nothing may be, and gives the path back. @return what went
  /// wrong, in one line; empty when it is in place. After a failure the movie stays, and its path
  /// stays taken until it is gone.
  std::string moveTo(const std::string& finalPath);
  /// Deletes the movie and gives the path back.
  void remove();

 private:
  explicit TemporaryMovie(std::string path) : mPath(std::move(path)) {}

  void giveBack();

  std::string mPath;
  bool mIsReserved = true;
};

}  // namespace vesk
