#include "platform/writing/file_system.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include <vesk/log.h>

namespace vesk {
namespace {

/// Keeps SIGXFSZ from being delivered to this thread. The kernel sends it to the thread whose write
/// passed the limit, so the one that is pending afterwards is ours to take.
class FileSizeSignalGuard {
 public:
  FileSizeSignalGuard() {
    sigemptyset(&mSignal);
    sigaddset(&mSignal, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &mSignal, &mBefore);
  }
  ~FileSizeSignalGuard() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
  FileSizeSignalGuard(const FileSizeSignalGuard&) = delete;
  FileSizeSignalGuard& operator=(const FileSizeSignalGuard&) = delete;

  void takePending() {
    if (sigismember(&mBefore, SIGXFSZ)) return;  // the host blocks it itself
    const timespec noWait{0, 0};
    while (sigtimedwait(&mSignal, nullptr, &noWait) < 0 && errno == EINTR) {
    }
  }

 private:
  sigset_t mSignal;
  sigset_t mBefore;
};

class PosixFile final : public File {
 public:
  explicit PosixFile(int descriptor) : mDescriptor(descriptor) {}
  ~PosixFile() override { close(); }

  int64_t writeVectors(const iovec* vectors, int count, uint64_t offset) override {
    return writeTo(mDescriptor, vectors, count, offset);
  }

  int64_t writeDirect(const iovec* vectors, int count, uint64_t offset) override {
    if (mDirect < 0) mDirect = openDirect();
    return mDirect < 0 ? mDirect : writeTo(mDirect, vectors, count, offset);
  }

  void dropCached(uint64_t offset, uint64_t length) override {
    ::posix_fadvise(mDescriptor, static_cast<off_t>(offset), static_cast<off_t>(length), POSIX_FADV_DONTNEED);
  }

  int64_t readBytes(uint8_t* into, size_t count, uint64_t offset) override {
    const ssize_t got = ::pread(mDescriptor, into, count, static_cast<off_t>(offset));
    return got >= 0 ? got : -errno;
  }

  int64_t size() override {
    struct stat status;
    return ::fstat(mDescriptor, &status) == 0 ? status.st_size : -errno;
  }

  int syncData() override { return ::fdatasync(mDescriptor) == 0 ? 0 : errno; }

  int preallocate(uint64_t offset, uint64_t length) override {
    struct statfs system;
    if (::fstatfs(mDescriptor, &system) == 0 && system.f_type == TMPFS_MAGIC) return EOPNOTSUPP;  // it takes memory
    FileSizeSignalGuard guard;
    if (::fallocate(mDescriptor, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), static_cast<off_t>(length)) == 0) {
      return 0;
    }
    const int error = errno;
    if (error == EFBIG) guard.takePending();
    return error;
  }

  uint64_t freeSpace() override {
    struct statvfs system;
    if (::fstatvfs(mDescriptor, &system) != 0 || system.f_blocks == 0) return UINT64_MAX;  // it does not say
    return uint64_t{system.f_bavail} * system.f_frsize;
  }

  int truncate(uint64_t size) override { return ::ftruncate(mDescriptor, static_cast<off_t>(size)) == 0 ? 0 : errno; }

  int lock() override { return ::flock(mDescriptor, LOCK_EX | LOCK_NB) == 0 ? 0 : errno; }

  bool isLinked() override {
    struct stat status;
    return ::fstat(mDescriptor, &status) == 0 && status.st_nlink > 0;
  }

  bool isAt(const std::string& path) override {
    struct stat own;
    struct stat there;
    return ::fstat(mDescriptor, &own) == 0 && ::lstat(path.c_str(), &there) == 0 && own.st_dev == there.st_dev &&
           own.st_ino == there.st_ino;
  }

  int close() override {
    if (mDirect >= 0) ::close(mDirect);
    mDirect = -1;
    if (mDescriptor < 0) return 0;
    const int result = ::close(mDescriptor) == 0 ? 0 : errno;
    mDescriptor = -1;
    return result == EINTR ? 0 : result;  // the descriptor is gone either way
  }

 private:
  static int64_t writeTo(int descriptor, const iovec* vectors, int count, uint64_t offset) {
    FileSizeSignalGuard guard;
    const ssize_t written = ::pwritev(descriptor, vectors, count, static_cast<off_t>(offset));
    if (written >= 0) return written;
    const int error = errno;
    if (error == EFBIG) guard.takePending();
    return -error;
  }

  /// A second descriptor of this file, wherever it has been moved to since it was opened. Negative: -errno.
  int openDirect() const {
    if (const char* const way = std::getenv("VESK_WRITE"); way && std::string_view(way) == "buffered")
      return -EOPNOTSUPP;
    const std::string self = "/proc/self/fd/" + std::to_string(mDescriptor);
    const int descriptor = ::open(self.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC);
    return descriptor >= 0 ? descriptor : -errno;
  }

  int mDescriptor;
  int mDirect = -1;  ///< writes past the page cache
};

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

class PosixFileSystem final : public FileSystem {
 public:
  std::unique_ptr<File> open(const std::string& path, FileMode mode, int& error) override {
    const int flags =
        O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (mode == FileMode::kCreateNew ? O_CREAT | O_EXCL : 0);
    int descriptor;
    do descriptor = ::open(path.c_str(), flags, 0600);
    while (descriptor < 0 && errno == EINTR);
    error = descriptor < 0 ? errno : 0;
    if (descriptor < 0) return nullptr;
    struct stat status;
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
      ::close(descriptor);
      error = EINVAL;
      return nullptr;
    }
    return std::make_unique<PosixFile>(descriptor);
  }

  int remove(const std::string& path) override { return ::unlink(path.c_str()) == 0 ? 0 : errno; }

  int checkFolderOf(const std::string& path) override {
    const std::string folder = folderOf(path);
    struct stat status;
    if (::stat(folder.c_str(), &status) != 0) return errno;
    if (!S_ISDIR(status.st_mode)) return ENOTDIR;
    if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return EISDIR;
    return ::access(folder.c_str(), W_OK | X_OK) == 0 ? 0 : errno;
  }

  int syncFolderOf(const std::string& path) override {
    const int descriptor = ::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return errno;
    const int result = ::fsync(descriptor) == 0 ? 0 : errno;
    ::close(descriptor);
    return result;
  }
};

}  // namespace

/// @param unit what a write that falls short must be a multiple of, so that the rest can follow it
int File::writeAllBy(Write write, uint64_t unit, std::span<iovec> vectors, uint64_t offset) {
  while (!vectors.empty()) {
    if (vectors.front().iov_len == 0) {
      vectors = vectors.subspan(1);
      continue;
    }
    const int count = static_cast<int>(std::min<size_t>(vectors.size(), IOV_MAX));
    const int64_t result = (this->*write)(vectors.data(), count, offset);
    if (result == -EINTR) continue;
    if (result < 0) return static_cast<int>(-result);
    if (result == 0 || static_cast<uint64_t>(result) % unit != 0) return EIO;  // neither progress nor a reason
    offset += static_cast<uint64_t>(result);
    for (auto left = static_cast<size_t>(result); left > 0;) {
      iovec& first = vectors.front();
      const size_t used = std::min(left, first.iov_len);
      first.iov_base = static_cast<uint8_t*>(first.iov_base) + used;
      first.iov_len -= used;
      left -= used;
      if (first.iov_len == 0) vectors = vectors.subspan(1);
    }
  }
  return 0;
}

int File::writeAll(std::span<iovec> vectors, uint64_t offset) {
  return writeAllBy(&File::writeVectors, 1, vectors, offset);
}

int File::writeAllDirect(std::span<iovec> vectors, uint64_t offset) {
  return writeAllBy(&File::writeDirect, kDirectAlignment, vectors, offset);
}

int File::writeAll(std::span<const uint8_t> bytes, uint64_t offset) {
  iovec vector{const_cast<uint8_t*>(bytes.data()), bytes.size()};
  return writeAll(std::span(&vector, 1), offset);
}

int File::readAll(std::span<uint8_t> into, uint64_t offset, size_t& got) {
  got = 0;
  while (got < into.size()) {
    const int64_t result = readBytes(into.data() + got, into.size() - got, offset + got);
    if (result == -EINTR) continue;
    if (result < 0) return static_cast<int>(-result);
    if (result == 0) break;
    got += static_cast<size_t>(result);
  }
  return 0;
}

int File::makeDurable() {
  if (mCannotSync) return 0;
  int error;
  do error = syncData();
  while (error == EINTR);
  if (error != EINVAL && error != ENOSYS && error != EOPNOTSUPP) return error;
  if (!mCannotSync.exchange(true))
    NSLog(LogLevel::kWarning, "The file system cannot be asked to sync: a power cut may cost more than usual");
  return 0;
}

FileSystem& FileSystem::posix() {
  static auto& fileSystem = *new PosixFileSystem;  // movies may be finished while the process ends
  return fileSystem;
}

}  // namespace vesk
