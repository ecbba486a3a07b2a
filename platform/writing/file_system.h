#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace vesk {

/// What addresses, lengths and offsets are multiples of that are written past the page cache: the largest block
/// that disks have today, and a page of memory.
constexpr uint64_t kDirectAlignment = 4096;

constexpr uint64_t alignedUp(uint64_t value, uint64_t alignment = kDirectAlignment) {
  return (value + alignment - 1) / alignment * alignment;
}

/// An open file of the file layer. Failures are errno values; 0 is success.
///
/// The virtual operations are one system call each and may fall short or be interrupted; writeAll,
/// writeAllDirect, readAll and makeDurable are the one place that copes with that. Threads: reading, writing
/// and syncing may happen at the same time on different threads; writing past the page cache on one.
class File {
 public:
  virtual ~File() = default;

  /// Writes all of `vectors`, which are used up, from `offset` on. After a failure any leading part
  /// may have been written.
  int writeAll(std::span<iovec> vectors, uint64_t offset);
  int writeAll(std::span<const uint8_t> bytes, uint64_t offset);
  /// The same past the page cache, whole blocks (kDirectAlignment) from and to everywhere. What was so written
  /// takes no memory; like all that is written, it is on the disk after makeDurable only. Any failure may mean
  /// that the file system cannot do it; what was to be written is then written as usual.
  int writeAllDirect(std::span<iovec> vectors, uint64_t offset);
  /// Fills `into` from `offset` on; `got` is less than its size only at the end of the file.
  int readAll(std::span<uint8_t> into, uint64_t offset, size_t& got);
  /// Waits until everything written is on the disk. Where the file system cannot do that, the movie
  /// is as durable as the system makes it: one line says so, and it is no failure.
  int makeDurable();

  /// One write at `offset`. @return bytes written, or -errno.
  virtual int64_t writeVectors(const iovec* vectors, int count, uint64_t offset) = 0;
  /// One write of whole blocks past the page cache. @return bytes written, or -errno.
  virtual int64_t writeDirect(const iovec* vectors, int count, uint64_t offset) = 0;
  /// Takes what is on the disk out of the page cache. A hint: it may do nothing.
  virtual void dropCached(uint64_t offset, uint64_t length) = 0;
  /// One read at `offset`. @return bytes read, 0 at the end, or -errno.
  virtual int64_t readBytes(uint8_t* into, size_t count, uint64_t offset) = 0;
  /// Bytes in the file, or -errno.
  virtual int64_t size() = 0;
  /// Waits until everything written is on the disk. One try.
  virtual int syncData() = 0;
  /// Sets space aside without changing the size. EOPNOTSUPP where the file system cannot.
  virtual int preallocate(uint64_t offset, uint64_t length) = 0;
  /// Bytes for which the file system has room, as far as it says; what was set aside is no such room. A quota may
  /// allow less.
  virtual uint64_t freeSpace() = 0;
  /// Cuts the file, and with it any space set aside behind `size`.
  virtual int truncate(uint64_t size) = 0;
  /// Claims the file for this handle until it is closed. EWOULDBLOCK when another has it.
  virtual int lock() = 0;
  /// Whether the file still has a name in some folder.
  virtual bool isLinked() = 0;
  /// Whether it is this file that lies at `path`.
  virtual bool isAt(const std::string& path) = 0;
  virtual int close() = 0;

 private:
  using Write = int64_t (File::*)(const iovec* vectors, int count, uint64_t offset);
  int writeAllBy(Write write, uint64_t unit, std::span<iovec> vectors, uint64_t offset);

  std::atomic<bool> mCannotSync{false};
};

enum class FileMode {
  kCreateNew,  ///< for reading and writing, made for its owner alone; EEXIST when anything is there
  kReadWrite,  ///< must be there
};

/// Where files live. The tests have one in memory that fails on command.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  /// The machine's own. With VESK_WRITE=buffered in the environment it writes nothing past the page cache, to
  /// compare and to test. A file size limit (RLIMIT_FSIZE) shows as EFBIG from a write: the SIGXFSZ
  /// that comes with it is held back and taken by the writing thread, so it neither ends the
  /// program nor reaches a handler of the host.
  static FileSystem& posix();

  /// The file at `path`, or null with the reason in `error`. A link at its end is not followed (ELOOP).
  virtual std::unique_ptr<File> open(const std::string& path, FileMode mode, int& error) = 0;
  virtual int remove(const std::string& path) = 0;
  /// Whether a file could be made at `path`, as far as its folder goes.
  virtual int checkFolderOf(const std::string& path) = 0;
  /// Makes the name of the file at `path` durable.
  virtual int syncFolderOf(const std::string& path) = 0;
};

}  // namespace vesk
