#include "apps/vesk/recording_folder.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "apps/vesk/program.h"
#include "platform/foundation/file_manager.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMark = ".recording-";
constexpr size_t kRandomCharacters = 6;  // that mkdtemp adds

/// ".lesson.mov.recording-". A long name is shortened, so that the whole fits into a file's name.
std::string folderPrefix(const std::string& finalPath) {
  const size_t added = 1 + std::strlen(kMark) + kRandomCharacters;
  return "." + nameWithin(fs::path(finalPath).filename().string(), NAME_MAX - added) + kMark;
}

Descriptor openFolder(const std::string& path) {
  return Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool isOurs(const struct stat& status) {
  return status.st_uid == geteuid() || geteuid() == 0;
}

/// Looks at one entry beside the final path; nothing when it is no folder of ours.
std::optional<Leftover> lookAt(const std::string& path, const std::string& movieName, LeftoverLock lock) {
  Leftover found{path, "", false, openFolder(path)};
  struct stat status = {};
  if (!found.lock || fstat(found.lock.get(), &status) != 0 || !isOurs(status)) return std::nullopt;
  if (fstatat(found.lock.get(), movieName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode))
    found.movie = stringByAppendingPathComponent(path, movieName);
  const int operation = (lock == LeftoverLock::kTake ? LOCK_EX : LOCK_SH) | LOCK_NB;
  if (flock(found.lock.get(), operation) != 0 && errno == EWOULDBLOCK) {
    found.isInUse = true;
    found.lock.reset();
  }
  return found;
}

}  // namespace

RecordingFolder::RecordingFolder(const std::string& finalPath) {
  while (!makeOnce(finalPath)) {
  }
  // After the lock is held, so that of two programs that start at once at least one sees the other.
  std::vector<Leftover> others = findLeftovers(finalPath, LeftoverLock::kLook);
  std::erase_if(others, [this](const Leftover& other) { return fs::path(other.folder).filename() == mName; });
  try {
    refuseIfRecorded(finalPath, others);
  } catch (const Failure&) {
    unlinkat(mParent.get(), mName.c_str(), AT_REMOVEDIR);
    throw;
  }
}

/// @return false when somebody cleared the folder away before it was locked
bool RecordingFolder::makeOnce(const std::string& finalPath) {
  const std::string parent = stringByDeletingLastPathComponent(finalPath);
  std::string made = (fs::path(parent) / (folderPrefix(finalPath) + std::string(kRandomCharacters, 'X'))).string();
  if (!mkdtemp(made.data())) {
    const int error = errno;  // what follows may change it
    throw Failure(kFailed, fmt::format("cannot write in \"{}\": {}.", parent, std::strerror(error)),
                  error == ENOENT         ? "Make the folder first, or choose another place."
                  : error == ENOSPC       ? "Make room on that disk, or choose another place."
                  : error == ENAMETOOLONG ? "Choose a shorter name."
                                          : "Choose a place that you may write to.");
  }
  mPath = made;
  mName = fs::path(made).filename().string();
  mParent.reset(open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  mFolder = openFolder(made);
  if (!mFolder) return true;  // it is there, and only its lock is missing
  // Others hold it for a moment at most: those who look, and those who clear away what is empty.
  while (flock(mFolder.get(), LOCK_EX) != 0 && errno == EINTR) {
  }
  struct stat status = {};
  return fstat(mFolder.get(), &status) != 0 || status.st_nlink > 0;
}

RecordingFolder::~RecordingFolder() {
  unlinkat(mParent.get(), mName.c_str(), AT_REMOVEDIR);
}

void Leftover::removeFolder() const {
  const Descriptor opened = openFolder(folder);
  if (!opened) return;
  // A recording keeps the name of its movie by a file ".NAME.lock"; nobody has that any more.
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.size() > 6 && name.front() == '.' && name.compare(name.size() - 5, 5, ".lock") == 0)
      unlinkat(opened.get(), name.c_str(), 0);
  }
  rmdir(folder.c_str());
}

std::vector<Leftover> findLeftovers(const std::string& finalPath, LeftoverLock lock) {
  std::vector<Leftover> found;
  const std::string prefix = folderPrefix(finalPath);
  const std::string movieName = fs::path(finalPath).filename().string();
  std::error_code error;
  for (fs::directory_iterator entry(stringByDeletingLastPathComponent(finalPath), error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.rfind(prefix, 0) != 0 || name.size() != prefix.size() + kRandomCharacters) continue;
    if (auto leftover = lookAt(entry->path().string(), movieName, lock)) found.push_back(std::move(*leftover));
  }
  return found;
}

void refuseIfRecorded(const std::string& finalPath, const std::vector<Leftover>& leftovers) {
  for (const Leftover& leftover : leftovers) {
    if (leftover.isInUse)
      throw Failure(kBusy, fmt::format("\"{}\" is being recorded by another program.", finalPath),
                    "Choose another name, or end that recording first.");
  }
}

}  // namespace vesk::program
