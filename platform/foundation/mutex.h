#pragma once

#include <mutex>

#include "platform/foundation/thread_annotations.h"

namespace vesk {

/// std::mutex with the annotations that let clang check who holds it.
class VESK_CAPABILITY("mutex") Mutex {
 public:
  void lock() VESK_ACQUIRE() { mMutex.lock(); }
  bool try_lock() VESK_TRY_ACQUIRE(true) { return mMutex.try_lock(); }
  void unlock() VESK_RELEASE() { mMutex.unlock(); }

 private:
  std::mutex mMutex;
};

/// A lock that the thread holding it may take again.
class VESK_CAPABILITY("mutex") RecursiveMutex {
 public:
  void lock() VESK_ACQUIRE() { mMutex.lock(); }
  bool try_lock() VESK_TRY_ACQUIRE(true) { return mMutex.try_lock(); }
  void unlock() VESK_RELEASE() { mMutex.unlock(); }

 private:
  std::recursive_mutex mMutex;
};

/// Holds a Mutex or a RecursiveMutex for its own lifetime. Wait on it with
/// std::condition_variable_any, which takes the mutex itself.
template <class M>
class VESK_SCOPED_CAPABILITY BasicLock {
 public:
  explicit BasicLock(M& mutex) VESK_ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
  ~BasicLock() VESK_RELEASE() { mMutex.unlock(); }
  BasicLock(const BasicLock&) = delete;
  BasicLock& operator=(const BasicLock&) = delete;

 private:
  M& mMutex;
};

using MutexLock = BasicLock<Mutex>;
using RecursiveMutexLock = BasicLock<RecursiveMutex>;

}  // namespace vesk
