#include "sessions/temporary_movie.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/foundation/errors.h"
#include "platform/foundation/file_manager.h"

namespace vesk {
namespace {

/// Names that are tried.
constexpr int kMostNumbers = 9999;

/// What lies at `name` in `folder`, links not followed; nothing, with errno, when that cannot be seen.
std::optional<struct stat> statusIn(int folder, const std::string& name) {
  struct stat status = {};
  if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return status;
}
std::optional<struct stat> statusIn(const Descriptor& folder, const std::string& name) {
  return statusIn(folder.get(), name);
}

bool isSame(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// "clip.mov" for 1, "clip 2.mov" for 2.
std::string numbered(const std::filesystem::path& name, int number) {
  if (number == 1) return name.string();
  const std::string end = " " + std::to_string(number) + name.extension().string();
  if (end.size() > NAME_MAX / 2) return nameWithin(name.string() + " " + std::to_string(number), NAME_MAX);
  return nameWithin(name.stem().string(), NAME_MAX - end.size()) + end;
}

std::string lockNameOf(const std::string& name) {
  return "." + nameWithin(name, 200) + ".lock";
}

enum class Claim { kMine, kTaken, kImpossible };

/// Makes and locks the file `name`. kImpossible where the folder takes no files or no locks.
Claim claim(const Descriptor& folder, const std::string& name, Descriptor& lock) {
  constexpr int kMostAttempts = 100;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    lock.reset(openat(folder.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!lock) return statusIn(folder, name) ? Claim::kTaken : Claim::kImpossible;  // somebody else's, or none can be
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
      const Claim result = errno == EWOULDBLOCK ? Claim::kTaken : Claim::kImpossible;
      lock.reset();
      return result;
    }
    // Its owner may have deleted it between the two.
    struct stat locked = {};
    const auto there = statusIn(folder, name);
    if (there && fstat(lock.get(), &locked) == 0 && isSame(*there, locked)) return Claim::kMine;
  }
  lock.reset();
  return Claim::kTaken;
}

}  // namespace

std::optional<TemporaryMovie> TemporaryMovie::reserve(const std::string& finalPath, const std::string& inFolder) {
  const std::string wanted = lastPathComponent(finalPath);
  if (wanted.empty() || wanted == "/" || wanted == "." || wanted == ".." || finalPath.back() == '/')
    return std::nullopt;
  const std::string folderPath = inFolder.empty() ? NSTemporaryDirectory() : inFolder;
  for (int number = 1; number <= kMostNumbers; ++number) {
    const std::string name = numbered(wanted, number);
    std::string path = stringByAppendingPathComponent(folderPath, name);
    const std::string lockName = lockNameOf(name);
    Descriptor folder(open(folderPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // Where there is no folder, opening the movie says so. Where only no more files could be opened, its path leads to
    // it.
    if (!folder) return TemporaryMovie(std::move(path), name, lockName, Descriptor(), Descriptor());
    if (statusIn(folder, name)) continue;
    Descriptor lock;
    if (claim(folder, lockName, lock) == Claim::kTaken) continue;
    TemporaryMovie movie(std::move(path), name, lockName, std::move(folder), std::move(lock));
    if (!statusIn(movie.mFolder, name)) return movie;
  }
  return std::nullopt;
}

TemporaryMovie::Placing TemporaryMovie::moveTo(const std::string& finalPath) {
  Placing placing = place(finalPath);
  giveBack();
  return placing;
}

TemporaryMovie::Placing TemporaryMovie::place(const std::string& finalPath) const {
  const auto movie = status();
  if (!movie && errno != ENOENT) {
    const int error = errno;
    return {{fileCause(error), "\"" + mPath + "\" cannot be reached: " + std::strerror(error), "", mPath}, "", true};
  }
  if (!movie || !S_ISREG(movie->st_mode))
    return {{Cause::kFolderGone, "nothing was written at \"" + mPath + "\"", "", mPath}, ""};
  if (isAlreadyAt(finalPath)) {
    giveOrdinaryMode(finalPath);
    return {};
  }
  const std::string current = whereabouts();
  if (current.empty())
    return {{Cause::kFolderGone, "the movie's disk was unmounted; it is there, in a file named \"" + mName + "\"",
             "Attach the disk again.", mName},
            "",
            true};
  NSError error;
  if (!NSFileManager::defaultManager().moveItemAtPath(current, finalPath, &error))
    return {errorOf(error), current, true};
  giveOrdinaryMode(finalPath);
  return {};
}

std::optional<struct stat> TemporaryMovie::status() const {
  return mFolder ? statusIn(mFolder, mName) : statusIn(AT_FDCWD, mPath);
}

/// A path that leads to the movie now; empty when none does.
std::string TemporaryMovie::whereabouts() const {
  const auto movie = status();
  if (!movie) return {};
  const auto leadsThere = [&](const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && isSame(status, *movie);
  };
  if (leadsThere(mPath)) return mPath;
  std::error_code ignored;
  const auto folder = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(mFolder.get()), ignored).string();
  const std::string path = stringByAppendingPathComponent(folder, mName);
  return leadsThere(path) ? path : std::string();
}

/// Whether the final path is the very name at which the movie was written.
bool TemporaryMovie::isAlreadyAt(const std::string& finalPath) const {
  struct stat folder = {};
  struct stat finalFolder = {};
  return lastPathComponent(finalPath) == mName && fstat(mFolder.get(), &folder) == 0 &&
         stat(stringByDeletingLastPathComponent(finalPath).c_str(), &finalFolder) == 0 && isSame(folder, finalFolder);
}

void TemporaryMovie::remove() {
  const auto movie = status();
  if (movie && S_ISREG(movie->st_mode)) mFolder ? unlinkat(mFolder.get(), mName.c_str(), 0) : unlink(mPath.c_str());
  giveBack();
}

/// The name of the lock goes while it is held: who takes it up next makes a new one.
void TemporaryMovie::giveBack() noexcept {
  if (mLock) unlinkat(mFolder.get(), mLockName.c_str(), 0);
  mLock.reset();
}

}  // namespace vesk
