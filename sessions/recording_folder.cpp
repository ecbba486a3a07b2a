#include "sessions/recording_folder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/foundation/file_manager.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMark = ".recording-";
constexpr std::string_view kLockEnding = ".lock";
constexpr size_t kRandomCharacters = 6;  // that mkdtemp adds

/// ".lesson.mov.recording-". A long name is shortened, so that the whole fits into a file's name.
std::string folderPrefix(const std::string& finalPath) {
  const size_t added = 1 + kMark.size() + kRandomCharacters;
  return "." + nameWithin(lastPathComponent(finalPath), NAME_MAX - added) + std::string(kMark);
}

Descriptor openFolder(const std::string& path) {
  return Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool isOurs(const struct stat& status) {
  return status.st_uid == geteuid() || geteuid() == 0;
}

/// A recording keeps the name of its movie by a file ".NAME.lock" beside it.
bool isLockName(std::string_view name) {
  return name.size() > kLockEnding.size() + 1 && name.front() == '.' && name.ends_with(kLockEnding);
}

/// The names in a folder.
std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    names.push_back(entry->path().filename().string());
  return names;
}

/// The movie in a hidden folder called `folderName`: the one whose recording makes folders of that name.
std::string movieNameIn(const std::string& folder, const std::string& folderName) {
  for (const std::string& name : namesIn(folder))
    if (!isLockName(name) && folderName.starts_with(folderPrefix(name))) return name;
  return {};
}

/// Looks at one entry beside the final path; nothing when it is no folder of ours.
std::optional<LockedLeftover> lookAt(const std::string& path, const std::string& movieName, LeftoverLock lock) {
  LockedLeftover found{path, "", false, openFolder(path)};
  struct stat status = {};
  if (!found.lock || fstat(found.lock.get(), &status) != 0 || !isOurs(status)) return std::nullopt;
  if (!movieName.empty() && fstatat(found.lock.get(), movieName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(status.st_mode))
    found.movie = stringByAppendingPathComponent(path, movieName);
  const int operation = (lock == LeftoverLock::kTake ? LOCK_EX : LOCK_SH) | LOCK_NB;
  if (flock(found.lock.get(), operation) != 0 && errno == EWOULDBLOCK) {
    found.isInUse = true;
    found.lock.reset();
  }
  return found;
}

Error cannotWriteIn(const std::string& folder, int error) {
  const std::string what = fmt::format("cannot write in \"{}\": {}", folder, std::strerror(error));
  switch (error) {
    case ENOENT:
      return {Cause::kFolderGone, what, "Make the folder first, or choose another place.", folder};
    case ENOTDIR:
      return {Cause::kFolderGone, what, "Choose another place.", folder};
    case ENOSPC:
      return {Cause::kDiskFull, what, "Make room on that disk, or choose another place.", folder};
    case ENAMETOOLONG:
      return {Cause::kFileError, what, "Choose a shorter name.", folder};
    case EACCES:
    case EPERM:
    case EROFS:
      return {Cause::kNoPermission, what, "Choose a place that you may write to.", folder};
    default:
      return {Cause::kFileError, what, "Choose another place.", folder};
  }
}

}  // namespace

std::unique_ptr<RecordingFolder> RecordingFolder::make(const std::string& finalPath, Error& error) {
  std::unique_ptr<RecordingFolder> folder(new RecordingFolder);
  Making making = Making::kClearedAway;
  while (making == Making::kClearedAway) making = folder->makeOnce(finalPath, error);
  if (making == Making::kFailed) return nullptr;
  // After the lock is held, so that of two programs that start at once at least one sees the other.
  std::vector<LockedLeftover> others = findLeftovers(finalPath, LeftoverLock::kLook);
  std::erase_if(others, [&](const LockedLeftover& other) { return lastPathComponent(other.folder) == folder->mName; });
  error = refusalIfRecorded(finalPath, others);
  return error ? nullptr : std::move(folder);
}

RecordingFolder::Making RecordingFolder::makeOnce(const std::string& finalPath, Error& error) {
  const std::string parent = stringByDeletingLastPathComponent(finalPath);
  std::string made =
      stringByAppendingPathComponent(parent, folderPrefix(finalPath) + std::string(kRandomCharacters, 'X'));
  if (!mkdtemp(made.data())) {
    error = cannotWriteIn(parent, errno);
    return Making::kFailed;
  }
  mPath = made;
  mName = lastPathComponent(made);
  mParent.reset(open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  mFolder = openFolder(made);
  if (!mFolder) return Making::kDone;  // it is there, and only its lock is missing
  // Others hold it for a moment at most: those who look, and those who clear away what is empty.
  while (flock(mFolder.get(), LOCK_EX) != 0 && errno == EINTR) {
  }
  struct stat status = {};
  const bool isThere = fstat(mFolder.get(), &status) != 0 || status.st_nlink > 0;
  return isThere ? Making::kDone : Making::kClearedAway;
}

RecordingFolder::~RecordingFolder() {
  if (mParent)
    unlinkat(mParent.get(), mName.c_str(), AT_REMOVEDIR);
  else
    rmdir(mPath.c_str());
}

void LockedLeftover::removeFolder() const {
  const Descriptor opened = openFolder(folder);
  if (!opened) return;
  for (const std::string& name : namesIn(folder))  // of movies that nobody has any more
    if (isLockName(name)) unlinkat(opened.get(), name.c_str(), 0);
  rmdir(folder.c_str());
}

std::vector<LockedLeftover> findLeftovers(const std::string& finalPath, LeftoverLock lock) {
  std::vector<LockedLeftover> found;
  const std::string prefix = folderPrefix(finalPath);
  const std::string parent = stringByDeletingLastPathComponent(finalPath);
  for (const std::string& name : namesIn(parent)) {
    if (!name.starts_with(prefix) || name.size() != prefix.size() + kRandomCharacters) continue;
    auto leftover = lookAt(stringByAppendingPathComponent(parent, name), lastPathComponent(finalPath), lock);
    if (leftover) found.push_back(std::move(*leftover));
  }
  return found;
}

std::vector<LockedLeftover> findLeftoversIn(const std::string& folder, LeftoverLock lock) {
  std::vector<LockedLeftover> found;
  for (const std::string& name : namesIn(folder)) {
    const size_t mark = name.rfind(kMark);
    if (name.front() != '.' || mark == std::string::npos || name.size() != mark + kMark.size() + kRandomCharacters)
      continue;
    const std::string path = stringByAppendingPathComponent(folder, name);
    if (auto leftover = lookAt(path, movieNameIn(path, name), lock)) found.push_back(std::move(*leftover));
  }
  return found;
}

bool isRecorded(const std::string& finalPath) {
  const std::vector<LockedLeftover> found = findLeftovers(finalPath, LeftoverLock::kLook);
  return std::any_of(found.begin(), found.end(), [](const LockedLeftover& each) { return each.isInUse; });
}

Error refusalIfRecorded(const std::string& finalPath, const std::vector<LockedLeftover>& leftovers) {
  for (const LockedLeftover& leftover : leftovers)
    if (leftover.isInUse)
      return {Cause::kBusy, fmt::format("\"{}\" is being recorded by another program", finalPath),
              "Choose another name, or end that recording first.", finalPath};
  return {};
}

std::string freeName(const std::string& file, const std::string& taken) {
  const fs::path wanted(file);
  const auto isThere = [&](const std::string& path) {
    std::error_code ignored;
    return path == taken || fs::exists(fs::symlink_status(path, ignored)) || (path != file && isRecorded(path));
  };
  std::string free = file;
  for (int number = 2; isThere(free); ++number)
    free = (wanted.parent_path() / fmt::format("{}-{}{}", wanted.stem().string(), number, wanted.extension().string()))
               .string();
  return free;
}

}  // namespace vesk
