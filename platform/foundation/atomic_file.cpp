#include "platform/foundation/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "platform/foundation/file_manager.h"

namespace vesk {
namespace {

/// The temporary file beside the final one; it is gone again unless it was put in its place.
class HiddenFile {
 public:
  explicit HiddenFile(const std::string& path)
      : mName(stringByAppendingPathComponent(stringByDeletingLastPathComponent(path),
                                             "." + lastPathComponent(path).substr(0, 200) + ".XXXXXX")),
        mDescriptor(mkostemp(mName.data(), O_CLOEXEC)) {}
  ~HiddenFile() {
    if (mDescriptor >= 0) close(mDescriptor);
    if (mExists) unlink(mName.c_str());
  }
  HiddenFile(const HiddenFile&) = delete;
  HiddenFile& operator=(const HiddenFile&) = delete;

  bool isOpen() const { return mDescriptor >= 0; }

  bool write(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
      const ssize_t written = ::write(mDescriptor, bytes.data(), bytes.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return false;
      bytes = bytes.subspan(static_cast<size_t>(written));
    }
    return true;
  }

  /// Gives the file the rights of one that is made in the plain way, and puts it on disk.
  bool settle() {
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(mDescriptor, 0666 & ~mask);  // a nicety: file systems without rights refuse it
    const bool isSynced = fsync(mDescriptor) == 0 || errno == EINVAL || errno == ENOSYS;
    return isSynced && close(std::exchange(mDescriptor, -1)) == 0;
  }

  bool moveTo(const std::string& path) {
    if (rename(mName.c_str(), path.c_str()) != 0) return false;
    mExists = false;
    return true;
  }

 private:
  std::string mName;
  int mDescriptor;
  bool mExists = mDescriptor >= 0;
};

bool writeBeside(const std::string& path, std::span<const uint8_t> bytes) {
  HiddenFile file(path);
  return file.isOpen() && file.write(bytes) && file.settle() && file.moveTo(path);
}

}  // namespace

bool writeToFileAtomically(const std::string& path, std::span<const uint8_t> bytes, NSError* error) {
  const bool isWritten = writeBeside(path, bytes);
  const int failure = isWritten ? 0 : errno;
  if (error) {
    *error = {};
    if (!isWritten) *error = {failure, "Cannot write " + path + ": " + std::generic_category().message(failure)};
  }
  return isWritten;
}

}  // namespace vesk
