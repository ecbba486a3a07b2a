#include "capture/files/file_blocks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/foundation/errors.h"

namespace vesk::capture {
namespace {

/// Behind a reader, whole stretches are given back but for the one before its own: the other track's reader
/// may still be there. As long as a multiple of the kernel's largest folio, which it gives back whole.
constexpr int64_t kStretch = int64_t{4} << 20;
/// What is read of a file when it is opened, to look at it, and small enough to stay.
constexpr int64_t kSmall = int64_t{64} << 20;
constexpr int kSamples = 32;

/// Whether most of a file is in the page cache, as far as samples tell.
bool isCached(int descriptor, int64_t size) {
  posix_fadvise(descriptor, 0, 0, POSIX_FADV_RANDOM);  // what is not there is not to be read ahead of
  int cached = 0;
  for (int sample = 0; sample < kSamples; ++sample) {
    uint8_t byte = 0;
    const iovec vector{&byte, 1};
    cached += preadv2(descriptor, &vector, 1, size / kSamples * sample, RWF_NOWAIT) == 1 ? 1 : 0;
  }
  return cached > kSamples / 2;
}

Error notRegular(const std::string& path) {
  return {Cause::kUnreadable, fmt::format("{}: is not a regular file", path), "Name a movie or sound file.", path};
}

}  // namespace

std::shared_ptr<FileBlocks> FileBlocks::open(const std::string& path, Error& error) {
  // Looked at first: some devices take being opened for a command. A pipe is not waited for either.
  struct stat before {};
  if (stat(path.c_str(), &before) == 0 && !S_ISREG(before.st_mode) && !S_ISDIR(before.st_mode)) {
    error = notRegular(path);
    return nullptr;
  }
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    const int reason = errno;
    error = {fileCause(reason), fmt::format("{}: cannot be opened: {}", path, std::generic_category().message(reason)),
             "Choose a file that you may read.", path};
    if (reason == ENOENT || reason == ENOTDIR)
      error = {Cause::kNoFile, fmt::format("{}: no such file", path), "Check the path.", path};
    return nullptr;
  }
  struct stat status {};
  const bool isKnown = fstat(descriptor, &status) == 0;
  const bool givesBack = isKnown && status.st_size > kSmall && !isCached(descriptor, status.st_size);
  std::shared_ptr<FileBlocks> file(new FileBlocks(descriptor, givesBack));
  if (isKnown && S_ISREG(status.st_mode) && status.st_size > 0) return file;
  if (isKnown && S_ISREG(status.st_mode)) {
    error = {Cause::kUnreadable, fmt::format("{}: the file is empty", path), "Name a movie or sound file.", path};
  } else if (isKnown && S_ISDIR(status.st_mode)) {
    error = {Cause::kWrongUse, fmt::format("{}: is a folder", path), "Name a movie or sound file in it.", path};
  } else {
    error = notRegular(path);
  }
  return nullptr;
}

std::shared_ptr<FileBlocks> FileBlocks::again() const {
  const int descriptor = fcntl(mDescriptor, F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) return nullptr;
  return std::shared_ptr<FileBlocks>(new FileBlocks(descriptor, mGivesBack));
}

FileBlocks::FileBlocks(int descriptor, bool givesBack) : mDescriptor(descriptor), mGivesBack(givesBack) {
  posix_fadvise(mDescriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
}

FileBlocks::~FileBlocks() {
  if (mGivesBack) posix_fadvise(mDescriptor, 0, 0, POSIX_FADV_DONTNEED);
  ::close(mDescriptor);
}

int64_t FileBlocks::size() const {
  struct stat status {};
  return fstat(mDescriptor, &status) == 0 ? static_cast<int64_t>(status.st_size) : -int64_t{errno};
}

int FileBlocks::read(int64_t position, uint8_t* bytes, int count) {
  if (position < 0 || count <= 0) return -EINVAL;
  if (count >= kBlockBytes) return readThrough(position, bytes, count);
  MutexLock lock(mMutex);
  int error = 0;
  int copied = 0;
  while (copied < count) {
    const auto* found = kept(position + copied, error);
    if (found == nullptr) break;
    const Block& block = **found;
    const int64_t part = std::min<int64_t>(count - copied, block.mBegin + block.mSize - (position + copied));
    const auto here = block.at(position + copied, part);
    if (part <= 0 || here.empty()) break;
    std::memcpy(bytes + copied, here.data(), here.size());
    copied += static_cast<int>(part);
  }
  return copied > 0 ? copied : error;
}

std::shared_ptr<const FileBlocks::Block> FileBlocks::block(int64_t position) {
  if (position < 0) return nullptr;
  MutexLock lock(mMutex);
  int error = 0;
  const auto* found = kept(position, error);
  return found != nullptr ? *found : nullptr;
}

void FileBlocks::forget() {
  MutexLock lock(mMutex);
  for (auto& block : mBlocks) block.reset();
}

int FileBlocks::readThrough(int64_t position, uint8_t* bytes, int64_t count) const {
  int64_t total = 0;
  while (total < count) {
    const ssize_t got = pread(mDescriptor, bytes + total, static_cast<size_t>(count - total), position + total);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && total == 0) return -errno;
    if (got <= 0) break;
    total += got;
  }
  giveBackBehind(position, position + total);
  return static_cast<int>(total);
}

/// Gives back what lies behind the stretches that begin between `from` and `to`.
void FileBlocks::giveBackBehind(int64_t from, int64_t to) const {
  if (!mGivesBack) return;
  const int64_t first = (from + kStretch - 1) / kStretch - 2;
  const int64_t last = (to - 1) / kStretch - 2;
  if (last < std::max<int64_t>(first, 0)) return;
  const int64_t begin = std::max<int64_t>(first, 0) * kStretch;
  posix_fadvise(mDescriptor, begin, (last + 1) * kStretch - begin, POSIX_FADV_DONTNEED);
}

/// The block of that position, read unless it is kept; null with a negative errno when it cannot be.
const std::shared_ptr<FileBlocks::Block>* FileBlocks::kept(int64_t position, int& error) {
  const int64_t begin = position / kBlockBytes * kBlockBytes;
  ++mUses;
  auto* oldest = &mBlocks[0];
  for (auto& block : mBlocks) {
    if (block && block->mBegin == begin && block->mSize > 0) {
      block->mLastUse = mUses;
      return &block;
    }
    if (*oldest && (!block || block->mLastUse < (*oldest)->mLastUse)) oldest = &block;
  }
  // A new one: what somebody still holds stays as it is.
  *oldest = std::make_shared<Block>();
  Block& block = **oldest;
  block.mBytes = MemoryPool::shared().allocate(static_cast<size_t>(kBlockBytes + kPaddingBytes));
  block.mBegin = begin;
  block.mLastUse = mUses;
  const int got = block.mBytes ? readThrough(begin, block.mBytes.get(), kBlockBytes) : -ENOMEM;
  block.mSize = std::max(got, 0);
  if (got < 0) error = got;
  return got < 0 ? nullptr : oldest;
}

}  // namespace vesk::capture
