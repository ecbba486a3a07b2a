#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include <vesk/error.h>
#include "platform/foundation/mutex.h"
#include "platform/media/memory_pool.h"

namespace vesk::capture {

/// An open footage file, read in large blocks of which the last few are kept. The readers of its
/// tracks share it: what one of them reads on its way the other finds here, and a packet costs no
/// call to the kernel (0.75 of the time on densely interleaved 720p with PCM).
///
/// Hours of footage do not fill the machine's page cache: what lies a few megabytes behind a reader is given
/// back to the kernel. That is not done for a small file, which a loop reads again and again, nor for one that
/// was there before: somebody else reads or has just made it.
///
/// Threads: any.
class FileBlocks {
 public:
  /// @return null with the reason in `error`.
  static std::shared_ptr<FileBlocks> open(const std::string& path, Error& error);
  /// The same file in blocks of its own; null when the process has no descriptor left.
  std::shared_ptr<FileBlocks> again() const;
  ~FileBlocks();
  FileBlocks(const FileBlocks&) = delete;
  FileBlocks& operator=(const FileBlocks&) = delete;

  /// Copies up to `count` bytes from `position` on. @return how many, 0 at the end, or a negative errno.
  int read(int64_t position, uint8_t* bytes, int count) VESK_EXCLUDES(mMutex);
  /// Bytes in the file now, or a negative errno.
  int64_t size() const;

  /// Part of the file as it lies in memory, with kPaddingBytes after it that may be read.
  class Block {
   public:
    /// The `count` bytes from `position` of the file on; empty unless all of them are here.
    std::span<uint8_t> at(int64_t position, int64_t count) const {
      if (position < mBegin || count > mSize || position - mBegin > mSize - count) return {};
      return {mBytes.get() + (position - mBegin), static_cast<size_t>(count)};
    }

   private:
    friend class FileBlocks;
    int64_t mBegin = -1;
    int64_t mSize = 0;
    uint64_t mLastUse = 0;
    MemoryPool::Block mBytes;  ///< on a page: the kernel copies to anywhere else at half the speed
  };
  static constexpr int64_t kPaddingBytes = 64;

  /// The block that `position` lies in, which keeps its bytes as long as somebody holds it; null where the file cannot
  /// be read. Who reads a track alone may rewrite that track's bytes in it, and calls `forget` before reading them
  /// again.
  std::shared_ptr<const Block> block(int64_t position) VESK_EXCLUDES(mMutex);
  /// From now on everything is read from the file again.
  void forget() VESK_EXCLUDES(mMutex);

 private:
  static constexpr int64_t kBlockBytes = 512 << 10;
  static constexpr size_t kBlocks = 8;  // some seconds of 720p: what may lie between frames and their sound

  FileBlocks(int descriptor, bool givesBack);
  int readThrough(int64_t position, uint8_t* bytes, int64_t count) const;
  void giveBackBehind(int64_t from, int64_t to) const;
  const std::shared_ptr<Block>* kept(int64_t position, int& error) VESK_REQUIRES(mMutex);

  const int mDescriptor;
  const bool mGivesBack;
  Mutex mMutex;
  std::shared_ptr<Block> mBlocks[kBlocks] VESK_GUARDED_BY(mMutex);
  uint64_t mUses VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk::capture
