#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include <vesk/error.h>
#include <vesk/export.h>
#include "platform/foundation/descriptor.h"

namespace vesk {

/// The path in a temporary folder at which a movie is written before it goes to its final place:
/// the final name, or "name 2", "name 3" and so on while that one is taken.
///
/// Opening a movie deletes what is at its path, so a path is taken while anything is there, and while
/// another recording has reserved it, of this process or of any other: a reserved path has a locked
/// file ".NAME.lock" beside it. The lock of a program that died is nobody's.
///
/// Threads: paths are reserved and given back from any thread.
class VESK_LOCAL TemporaryMovie {
 public:
  /// A path in `folder`, by default the process's temporary folder, for the movie that ends up at `finalPath`;
  /// none when that names no file.
  static std::optional<TemporaryMovie> reserve(const std::string& finalPath, const std::string& folder = "");
  /// Gives the path back.
  ~TemporaryMovie() { giveBack(); }
  TemporaryMovie(TemporaryMovie&&) noexcept = default;
  TemporaryMovie& operator=(TemporaryMovie&&) = delete;

  const std::string& path() const { return mPath; }

  /// What became of a movie that was to be moved.
  struct Placing {
    Error error;          ///< why it is not in place; none when it is
    std::string left;     ///< where it is then; empty when it is nowhere, or cannot be reached
    bool isLeft = false;  ///< it is where it was written, whether that can be reached or not
  };
  /// Moves the movie to `finalPath`, where nothing else may be, lets the umask say who may read it,
  /// and gives the path back. The movie is found also when its folder has been renamed meanwhile.
  /// After a failure it stays where it is, readable by its owner alone.
  Placing moveTo(const std::string& finalPath);
  /// Deletes the movie and gives the path back.
  void remove();

 private:
  TemporaryMovie(std::string path, std::string name, std::string lockName, Descriptor folder, Descriptor lock)
      : mPath(std::move(path)),
        mName(std::move(name)),
        mLockName(std::move(lockName)),
        mFolder(std::move(folder)),
        mLock(std::move(lock)) {}

  Placing place(const std::string& finalPath) const;
  /// What lies where it is written; nothing, with errno, when that cannot be seen.
  std::optional<struct stat> status() const;
  std::string whereabouts() const;
  bool isAlreadyAt(const std::string& finalPath) const;
  void giveBack() noexcept;

  std::string mPath;
  std::string mName;
  std::string mLockName;
  Descriptor mFolder;  ///< the temporary folder, whatever it is called by now; none where it could not be opened
  Descriptor mLock;
};

}  // namespace vesk
