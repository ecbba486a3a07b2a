#pragma once

#include <condition_variable>
#include <mutex>
#include <vector>

namespace vesk::test {

/// Collects what other threads report, and lets a test wait for it.
template <class Item>
class Recorder {
 public:
  void add(Item item) {
    const std::lock_guard lock(mMutex);
    mItems.push_back(std::move(item));
    mAdded.notify_all();
  }

  /// Waits until there are `count` items; answers all of them.
  std::vector<Item> waitFor(size_t count) {
    std::unique_lock lock(mMutex);
    mAdded.wait(lock, [&] { return mItems.size() >= count; });
    return mItems;
  }

  std::vector<Item> items() {
    const std::lock_guard lock(mMutex);
    return mItems;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mAdded;
  std::vector<Item> mItems;
};

/// A gate that threads wait at until it is opened.
class Gate {
 public:
  void open() {
    const std::lock_guard lock(mMutex);
    mIsOpen = true;
    mOpened.notify_all();
  }
  void wait() {
    std::unique_lock lock(mMutex);
    mOpened.wait(lock, [&] { return mIsOpen; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mOpened;
  bool mIsOpen = false;
};

}  // namespace vesk::test
