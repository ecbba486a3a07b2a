#include <vesk/atomic_file.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <system_error>
#include <utility>

#include "platform/foundation/errors.h"
#include "platform/foundation/file_manager.h"

namespace vesk {
namespace {

/// A new file at a hidden name beside `path`; it is gone again unless it was put in its place.
/// The operations answer 0 or errno.
class HiddenFile {
 public:
  explicit HiddenFile(const std::string& path)
      : mPath(path),
        mStem(stringByAppendingPathComponent(stringByDeletingLastPathComponent(path),
                                             "." + nameWithin(lastPathComponent(path), 200) + ".")) {}
  ~HiddenFile() {
    if (mDescriptor >= 0) close(mDescriptor);
    if (!mName.empty()) unlink(mName.c_str());
  }
  HiddenFile(const HiddenFile&) = delete;
  HiddenFile& operator=(const HiddenFile&) = delete;

  /// Not mkstemp, whose file only its owner could read. A file that is replaced keeps its mode: what
  /// a person has made private stays so.
  int make() {
    std::random_device random;
    for (int attempt = 0; attempt < 16; ++attempt) {
      const std::string name = mStem + std::to_string(random());
      mDescriptor = open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
      if (mDescriptor < 0 && errno == EEXIST) continue;
      if (mDescriptor < 0) return errno;
      mName = name;
      struct stat before = {};
      if (lstat(mPath.c_str(), &before) == 0 && S_ISREG(before.st_mode)) fchmod(mDescriptor, before.st_mode & 0777);
      return 0;
    }
    return EEXIST;
  }

  int write(std::span<const uint8_t> bytes) const {
    while (!bytes.empty()) {
      const ssize_t written = ::write(mDescriptor, bytes.data(), bytes.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return errno;
      bytes = bytes.subspan(static_cast<size_t>(written));
    }
    return 0;
  }

  /// Puts the bytes on disk. Some file systems cannot be asked to.
  int settle() {
    int error;
    do error = fsync(mDescriptor) == 0 ? 0 : errno;
    while (error == EINTR);
    if (error != 0 && error != EINVAL && error != ENOSYS && error != EOPNOTSUPP) return error;
    return close(std::exchange(mDescriptor, -1)) == 0 ? 0 : errno;
  }

  int moveTo(const std::string& path) {
    if (rename(mName.c_str(), path.c_str()) != 0) return errno;
    mName.clear();
    return 0;
  }

 private:
  std::string mPath;
  std::string mStem;
  std::string mName;  ///< empty while there is no file at it
  int mDescriptor = -1;
};

int writeBeside(const std::string& path, std::span<const uint8_t> bytes) {
  HiddenFile file(path);
  if (const int failure = file.make()) return failure;
  if (const int failure = file.write(bytes)) return failure;
  if (const int failure = file.settle()) return failure;
  return file.moveTo(path);
}

}  // namespace

bool writeToFileAtomically(const std::string& path, std::span<const uint8_t> bytes, NSError* error) {
  const int failure = writeBeside(path, bytes);
  if (error) {
    *error = {};
    if (failure)
      *error = {failure, "Cannot write " + path + ": " + std::generic_category().message(failure),
                failure == ENOENT ? Cause::kFolderGone : fileCause(failure), path};
  }
  return failure == 0;
}

}  // namespace vesk
