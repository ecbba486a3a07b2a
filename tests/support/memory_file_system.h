#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/writing/file_system.h"

namespace vesk::test {

/// A file system in memory that fails on command. Faults are asked for before every operation that
/// changes a file, counted from the start, so a test can let each one fail in turn.
class MemoryFileSystem final : public FileSystem {
 public:
  enum class Operation { kWrite, kSync, kTruncate, kPreallocate };
  struct Fault {
    int error = 0;                ///< the operation fails with this
    size_t mostBytes = SIZE_MAX;  ///< of a write that succeeds, and of one that fails before it does
  };
  using FaultPlan = std::function<Fault(Operation operation, size_t number, uint64_t offset, size_t bytes)>;

  void setFaults(FaultPlan plan) {
    std::lock_guard lock(mMutex);
    mPlan = std::move(plan);
    mOperations = 0;
  }
  /// Whether files can be written past the page cache.
  void setDirect(bool canDirect) { mCanDirect = canDirect; }
  /// Space is set aside for so many bytes and no more, whatever freeSpace says.
  void setQuota(uint64_t bytes) { mQuota = bytes; }
  /// Room for so many bytes and no more: what reaches beyond is not written, and ENOSPC.
  void setCapacity(uint64_t bytes) { mCapacity = bytes; }
  /// Called before every sync, which may be held up there while other operations go on.
  void setSlowSync(std::function<void()> slow) { mBeforeSync = std::move(slow); }
  /// From now on the disk has a cache that loses what was not synced when the power goes: see afterPowerCut.
  /// `observer` is called before every operation that changes a file.
  void setVolatile(std::function<void()> observer) { mBeforeOperation = std::move(observer); }
  /// A file as it may be found after the power went, from within the observer: what was synced, and of what was
  /// written since any sectors, in any order; its size is anything between.
  template <class Random>
  std::vector<uint8_t> afterPowerCut(const std::string& path, Random& random) const {
    const Node& node = *mFiles.at(path);
    std::vector<uint8_t> bytes = node.durable;
    const size_t kept = random() % 5;  // of four sectors
    for (const Write& write : node.unsynced) {
      if (write.isCut) {
        if (random() % 2 == 0) bytes.resize(std::min<size_t>(bytes.size(), write.offset));
        continue;
      }
      for (size_t at = 0; at < write.bytes.size();) {
        const size_t size = std::min<size_t>(kSector - (write.offset + at) % kSector, write.bytes.size() - at);
        if (random() % 4 < kept) {
          bytes.resize(std::max<size_t>(bytes.size(), write.offset + at + size));
          std::copy_n(write.bytes.begin() + static_cast<ptrdiff_t>(at), size,
                      bytes.begin() + static_cast<ptrdiff_t>(write.offset + at));
        }
        at += size;
      }
    }
    if (random() % 2 == 0) bytes.resize(std::max(bytes.size(), node.bytes.size()));
    return bytes;
  }
  /// What is on the disk for certain.
  const std::vector<uint8_t>& durable(const std::string& path) const { return mFiles.at(path)->durable; }
  /// Called with a file's bytes after every operation that changed them.
  void setObserver(std::function<void(const std::vector<uint8_t>& bytes)> observer) { mObserver = std::move(observer); }

  /// What a file with what is set aside for it leaves to others.
  uint64_t roomBeside(const std::string& path) const { return roomBeside(*mFiles.at(path)); }
  /// How often somebody wanted space set aside.
  size_t preallocated() const { return mPreallocated; }
  bool exists(const std::string& path) const { return mFiles.count(path) != 0; }
  std::vector<uint8_t> bytes(const std::string& path) const {
    const auto file = mFiles.find(path);
    return file == mFiles.end() ? std::vector<uint8_t>{} : file->second->bytes;
  }
  void put(const std::string& path, std::vector<uint8_t> bytes) {
    mFiles[path] = std::make_shared<Node>();
    mFiles[path]->bytes = std::move(bytes);
  }
  /// The folder is gone: open files have no name any more, and no new ones can be made.
  void removeFolder() {
    std::lock_guard lock(mMutex);
    mFiles.clear();
    mHasFolder = false;
  }

  std::unique_ptr<File> open(const std::string& path, FileMode mode, int& error) override {
    std::lock_guard lock(mMutex);
    auto file = mFiles.find(path);
    const bool isThere = file != mFiles.end();
    error = !mHasFolder || (!isThere && mode != FileMode::kCreateNew) ? ENOENT
            : isThere && mode == FileMode::kCreateNew                 ? EEXIST
                                                                      : 0;
    if (error != 0) return nullptr;
    if (file == mFiles.end()) file = mFiles.emplace(path, std::make_shared<Node>()).first;
    return std::make_unique<MemoryFile>(*this, file->second);
  }
  int remove(const std::string& path) override {
    std::lock_guard lock(mMutex);
    return mFiles.erase(path) != 0 ? 0 : ENOENT;
  }
  int checkFolderOf(const std::string&) override { return mHasFolder ? 0 : ENOENT; }
  int syncFolderOf(const std::string&) override { return 0; }

 private:
  static constexpr size_t kSector = 512;
  struct Write {
    uint64_t offset;
    std::vector<uint8_t> bytes;
    bool isCut = false;  ///< the file ends at `offset`
  };
  struct Node {
    std::vector<uint8_t> bytes;
    bool isLocked = false;
    uint64_t setAside = 0;  ///< where that ends
    std::vector<uint8_t> durable;
    std::vector<Write> unsynced;
  };

  class MemoryFile final : public File {
   public:
    MemoryFile(MemoryFileSystem& owner, std::shared_ptr<Node> node) : mOwner(owner), mNode(std::move(node)) {}
    ~MemoryFile() override { close(); }

    int64_t writeDirect(const iovec* vectors, int count, uint64_t offset) override {
      if (!mOwner.mCanDirect) return -EINVAL;
      bool isAligned = offset % kDirectAlignment == 0;
      for (const iovec& vector : std::span(vectors, static_cast<size_t>(count)))
        isAligned = isAligned && vector.iov_len % kDirectAlignment == 0 &&
                    reinterpret_cast<uintptr_t>(vector.iov_base) % kDirectAlignment == 0;
      return isAligned ? writeVectors(vectors, count, offset) : -EINVAL;
    }
    void dropCached(uint64_t, uint64_t) override {}
    int64_t writeVectors(const iovec* vectors, int count, uint64_t offset) override {
      std::lock_guard lock(mOwner.mMutex);
      size_t total = 0;
      for (int i = 0; i < count; ++i) total += vectors[i].iov_len;
      Fault fault = mOwner.nextFault(Operation::kWrite, offset, total);
      if (offset + total > mOwner.mCapacity && fault.error == 0)
        fault = {ENOSPC, offset < mOwner.mCapacity ? mOwner.mCapacity - offset : 0};
      const size_t size = std::min(total, fault.mostBytes);
      if (fault.error == 0 || fault.mostBytes != SIZE_MAX) {
        put(vectors, count, offset, size);
        mOwner.observe(*mNode);
      }
      if (fault.error != 0) return -fault.error;
      return static_cast<int64_t>(size);
    }
    int64_t readBytes(uint8_t* into, size_t count, uint64_t offset) override {
      std::lock_guard lock(mOwner.mMutex);
      if (offset >= mNode->bytes.size()) return 0;
      const size_t size = std::min<size_t>(count, mNode->bytes.size() - offset);
      std::memcpy(into, mNode->bytes.data() + offset, size);
      return static_cast<int64_t>(size);
    }
    int64_t size() override {
      std::lock_guard lock(mOwner.mMutex);
      return static_cast<int64_t>(mNode->bytes.size());
    }
    int syncData() override {
      if (mOwner.mBeforeSync) mOwner.mBeforeSync();
      std::lock_guard lock(mOwner.mMutex);
      const Fault fault = mOwner.nextFault(Operation::kSync, 0, 0);
      if (fault.error == 0 && mOwner.mBeforeOperation) {
        mNode->durable = mNode->bytes;
        mNode->unsynced.clear();
      }
      return fault.error;
    }
    int preallocate(uint64_t offset, uint64_t length) override {
      std::lock_guard lock(mOwner.mMutex);
      const Fault fault = mOwner.nextFault(Operation::kPreallocate, offset, length);
      ++mOwner.mPreallocated;
      if (fault.error != 0) return fault.error;
      if (offset + length > std::min(mOwner.mCapacity, mOwner.mQuota)) return ENOSPC;
      mNode->setAside = std::max(mNode->setAside, offset + length);
      return 0;
    }
    uint64_t freeSpace() override {
      std::lock_guard lock(mOwner.mMutex);
      return mOwner.roomBeside(*mNode);
    }
    int truncate(uint64_t size) override {
      std::lock_guard lock(mOwner.mMutex);
      const Fault fault = mOwner.nextFault(Operation::kTruncate, size, 0);
      if (fault.error != 0) return fault.error;
      mNode->bytes.resize(size);
      if (mOwner.mBeforeOperation) mNode->unsynced.push_back({size, {}, true});
      mOwner.observe(*mNode);
      return 0;
    }
    int lock() override {
      std::lock_guard lock(mOwner.mMutex);
      if (mNode->isLocked) return EWOULDBLOCK;
      mHasLock = mNode->isLocked = true;
      return 0;
    }
    bool isLinked() override {
      std::lock_guard lock(mOwner.mMutex);
      for (const auto& [path, node] : mOwner.mFiles) {
        if (node == mNode) return true;
      }
      return false;
    }
    bool isAt(const std::string& path) override {
      std::lock_guard lock(mOwner.mMutex);
      const auto file = mOwner.mFiles.find(path);
      return file != mOwner.mFiles.end() && file->second == mNode;
    }
    int close() override {
      std::lock_guard lock(mOwner.mMutex);
      if (mHasLock) mHasLock = mNode->isLocked = false;
      return 0;
    }

   private:
    void put(const iovec* vectors, int count, uint64_t offset, size_t size) {
      if (size == 0) return;
      if (mNode->bytes.size() < offset + size) mNode->bytes.resize(offset + size);
      for (int i = 0; i < count && size > 0; ++i) {
        const size_t some = std::min(size, vectors[i].iov_len);
        const auto* const from = static_cast<const uint8_t*>(vectors[i].iov_base);
        if (some > 0) std::memcpy(mNode->bytes.data() + offset, from, some);
        if (mOwner.mBeforeOperation) mNode->unsynced.push_back({offset, {from, from + some}});
        offset += some;
        size -= some;
      }
    }

    MemoryFileSystem& mOwner;
    std::shared_ptr<Node> mNode;
    bool mHasLock = false;
  };

  uint64_t roomBeside(const Node& node) const {
    return mCapacity - std::min(mCapacity, std::max<uint64_t>(node.setAside, node.bytes.size()));
  }
  Fault nextFault(Operation operation, uint64_t offset, size_t bytes) {
    const size_t number = mOperations++;
    if (mBeforeOperation) mBeforeOperation();
    return mPlan ? mPlan(operation, number, offset, bytes) : Fault{};
  }
  void observe(const Node& node) {
    if (mObserver) mObserver(node.bytes);
  }

  std::mutex mMutex;
  std::map<std::string, std::shared_ptr<Node>> mFiles;
  bool mHasFolder = true;
  std::atomic<bool> mCanDirect{true};
  size_t mPreallocated = 0;
  uint64_t mCapacity = UINT64_MAX;
  uint64_t mQuota = UINT64_MAX;
  std::function<void()> mBeforeOperation;
  std::function<void()> mBeforeSync;
  FaultPlan mPlan;
  size_t mOperations = 0;
  std::function<void(const std::vector<uint8_t>&)> mObserver;
};

}  // namespace vesk::test
