#include "platform/foundation/file_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/foundation/descriptor.h"
#include "platform/foundation/errors.h"
#include "platform/foundation/file_calls.h"
#include "platform/foundation/mutex.h"

namespace vesk {

const FileCalls kSystemFileCalls = {
    [](const char* from, const char* to) { return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE); },
    [](const char* from, const char* to) { return ::link(from, to); },
    [](const char* path) { return ::unlink(path); },
    [](int descriptor, const void* bytes, size_t count) { return ::write(descriptor, bytes, count); },
    [](int descriptor) { return ::fsync(descriptor); },
};

namespace {

/// Outcome of a step: 0, or the errno of what failed.
using Errno = int;

Errno outcome(int result) {
  return result == 0 ? 0 : errno;
}

/// Some file systems tell of a failed write only here.
Errno closeNow(Descriptor& file) {
  return outcome(close(file.release()));
}

/// Removes a file that was made on the way, unless the way was gone to its end.
class HalfMadeFile {
 public:
  HalfMadeFile(const FileCalls& calls, std::string path) : mCalls(calls), mPath(std::move(path)) {}
  ~HalfMadeFile() {
    if (!mPath.empty()) mCalls.unlink(mPath.c_str());
  }
  HalfMadeFile(const HalfMadeFile&) = delete;
  HalfMadeFile& operator=(const HalfMadeFile&) = delete;

  void keep() { mPath.clear(); }

 private:
  const FileCalls& mCalls;
  std::string mPath;
};

bool isNotSupported(Errno error) {
  return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM;
}

/// For file systems that know neither RENAME_NOREPLACE nor links: takes the name with an empty file
/// of our own, which the rename then replaces.
Errno renameOverPlaceholder(const FileCalls& calls, const std::string& from, const std::string& to) {
  Descriptor placeholder(open(to.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
  if (!placeholder) return errno;
  HalfMadeFile leftover(calls, to);
  if (rename(from.c_str(), to.c_str()) != 0) return errno;
  leftover.keep();
  return 0;
}

/// Renames within a file system; EEXIST when `to` exists, EXDEV when it is another file system.
Errno renameWithoutReplacing(const FileCalls& calls, const std::string& from, const std::string& to) {
  const Errno renamed = outcome(calls.renameNoReplace(from.c_str(), to.c_str()));
  if (!isNotSupported(renamed)) return renamed;
  const Errno linked = outcome(calls.link(from.c_str(), to.c_str()));
  if (isNotSupported(linked)) return renameOverPlaceholder(calls, from, to);
  if (linked != 0) return linked;
  const Errno unlinked = outcome(calls.unlink(from.c_str()));
  if (unlinked != 0) calls.unlink(to.c_str());
  return unlinked;
}

Errno writeAll(const FileCalls& calls, int descriptor, const char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t written = calls.write(descriptor, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes += written;
    count -= static_cast<size_t>(written);
  }
  return 0;
}

Errno copyBytes(const FileCalls& calls, int from, int to) {
  constexpr size_t kPiece = size_t{1} << 20;
  const auto piece = std::make_unique<char[]>(kPiece);
  for (;;) {
    const ssize_t count = read(from, piece.get(), kPiece);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return 0;
    if (const Errno error = writeAll(calls, to, piece.get(), static_cast<size_t>(count))) return error;
  }
}

/// Brings a file or a folder to the disk. Some file systems cannot be asked to.
Errno sync(const FileCalls& calls, int descriptor) {
  Errno error;
  do error = outcome(calls.sync(descriptor));
  while (error == EINTR);
  return isNotSupported(error) ? 0 : error;
}

/// Makes the names in a folder durable.
Errno syncFolder(const FileCalls& calls, const std::string& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return errno == EACCES ? 0 : errno;  // a folder may be writable and not readable
  return sync(calls, opened.get());
}

/// Copies the content and the time of change of `from` into the new file `to`, on disk when it returns.
Errno copyInto(const FileCalls& calls, const Descriptor& from, const struct stat& status, Descriptor& to) {
  if (const Errno error = copyBytes(calls, from.get(), to.get())) return error;
  const struct timespec times[2] = {status.st_atim, status.st_mtim};
  futimens(to.get(), times);  // a nicety: its failure loses nothing
  if (fchmod(to.get(), status.st_mode & 07777) != 0 && !isNotSupported(errno)) return errno;
  if (const Errno error = sync(calls, to.get())) return error;
  return closeNow(to);
}

Errno moveAcrossFileSystems(const FileCalls& calls, const std::string& from, const std::string& to) {
  const Descriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status = {};
  if (!source || fstat(source.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EXDEV;

  const std::string folder = stringByDeletingLastPathComponent(to);
  std::string hidden = stringByAppendingPathComponent(folder, "." + nameWithin(lastPathComponent(to), 200) + ".XXXXXX");
  Descriptor copy(mkostemp(hidden.data(), O_CLOEXEC));
  if (!copy) return errno;
  HalfMadeFile hiddenCopy(calls, hidden);
  if (const Errno error = copyInto(calls, source, status, copy)) return error;
  if (const Errno error = renameWithoutReplacing(calls, hidden, to)) return error;
  hiddenCopy.keep();

  HalfMadeFile placedCopy(calls, to);
  if (const Errno error = syncFolder(calls, folder)) return error;
  if (calls.unlink(from.c_str()) != 0) return errno;
  placedCopy.keep();
  return 0;
}

/// Keeps a message on one line whatever a path holds.
std::string oneLine(std::string text) {
  for (char& character : text)
    if (static_cast<unsigned char>(character) < ' ') character = '?';
  return text;
}

/// The process's umask, read without changing it for other threads where the kernel tells.
mode_t currentUmask() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Umask:", 0) == 0) return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
  }
  const mode_t mask = umask(077);
  umask(mask);
  return mask;
}

Mutex gTemporaryMutex;

std::string& hostTemporaryDirectory() VESK_REQUIRES(gTemporaryMutex) {
  static auto& folder = *new std::string;  // threads may ask while the process ends
  return folder;
}

}  // namespace

NSFileManager& NSFileManager::defaultManager() {
  static NSFileManager manager(kSystemFileCalls);
  return manager;
}

bool NSFileManager::moveItemAtPath(const std::string& from, const std::string& to, NSError* error) {
  Errno failure = renameWithoutReplacing(mCalls, from, to);
  if (failure == EXDEV) failure = moveAcrossFileSystems(mCalls, from, to);
  if (error) {
    *error = {};
    if (failure)
      *error = {failure, oneLine("Cannot move " + from + " to " + to + ": " + std::generic_category().message(failure)),
                failure == ENOENT && access(from.c_str(), F_OK) == 0 ? Cause::kFolderGone : fileCause(failure), to};
  }
  return failure == 0;
}

std::optional<uint64_t> NSFileManager::freeSpaceAtPath(const std::string& path) const {
  struct statvfs status = {};
  if (statvfs(path.c_str(), &status) != 0) return std::nullopt;
  const uint64_t blocks = status.f_bavail;
  const uint64_t size = status.f_frsize;
  if (size != 0 && blocks > std::numeric_limits<uint64_t>::max() / size) return std::numeric_limits<uint64_t>::max();
  return blocks * size;
}

bool giveOrdinaryMode(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  return fchmod(file.get(), 0666 & ~currentUmask()) == 0;
}

std::string nameWithin(const std::string& name, size_t bytes) {
  if (name.size() <= bytes) return name;
  uint64_t hash = 0xCBF29CE484222325;  // FNV-1a: the same for every program and every version
  for (const char character : name) hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001B3;
  char text[18];
  snprintf(text, sizeof text, "~%016llx", static_cast<unsigned long long>(hash));
  size_t kept = bytes - (sizeof text - 1);
  while (kept > 0 && (static_cast<unsigned char>(name[kept]) & 0xC0) == 0x80) --kept;
  return name.substr(0, kept) + text;
}

std::string NSTemporaryDirectory() {
  {
    MutexLock lock(gTemporaryMutex);
    if (!hostTemporaryDirectory().empty()) return hostTemporaryDirectory();
  }
  const char* const fromEnvironment = std::getenv("TMPDIR");
  return fromEnvironment && *fromEnvironment ? fromEnvironment : P_tmpdir;
}

void setTemporaryDirectory(std::string folder) {
  MutexLock lock(gTemporaryMutex);
  hostTemporaryDirectory() = std::move(folder);
}

std::string lastPathComponent(const std::string& path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "" : "/";
  const size_t slash = path.find_last_of('/', end);
  const size_t begin = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(begin, end + 1 - begin);
}

std::string stringByDeletingLastPathComponent(const std::string& path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "." : "/";
  const size_t slash = path.find_last_of('/', end);
  if (slash == std::string::npos) return ".";
  const size_t folderEnd = path.find_last_not_of('/', slash);
  return folderEnd == std::string::npos ? "/" : path.substr(0, folderEnd + 1);
}

std::string stringByAppendingPathComponent(const std::string& path, const std::string& component) {
  const size_t end = path.find_last_not_of('/');
  const size_t begin = component.find_first_not_of('/');
  std::string name = begin == std::string::npos ? "" : component.substr(begin);
  if (path.empty()) return name;
  return (end == std::string::npos ? "" : path.substr(0, end + 1)) + "/" + name;
}

}  // namespace vesk
