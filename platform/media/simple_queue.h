#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace vesk {

/// A bounded queue that one thread fills while another empties it, without a lock.
///
/// Threads: enqueue from one thread at a time, dequeue from one thread at a time; both at once is
/// safe. count may be asked from anywhere and is exact only when neither is under way.
template <class T>
class CMSimpleQueue {
 public:
  /// A queue that holds up to `capacity` elements.
  explicit CMSimpleQueue(size_t capacity) : mSlots(capacity + 1) {}

  /// Adds an element at the end; false, and `element` untouched, when the queue is full.
  bool enqueue(T&& element) {
    const size_t tail = mTail.load(std::memory_order_relaxed);
    const size_t next = after(tail);
    if (next == mHead.load(std::memory_order_acquire)) return false;
    mSlots[tail] = std::move(element);
    mTail.store(next, std::memory_order_release);
    return true;
  }

  /// Takes the first element; an empty T when there is none.
  T dequeue() {
    const size_t head = mHead.load(std::memory_order_relaxed);
    if (head == mTail.load(std::memory_order_acquire)) return T{};
    T element = std::exchange(mSlots[head], T{});
    mHead.store(after(head), std::memory_order_release);
    return element;
  }

  size_t count() const {
    const size_t head = mHead.load(std::memory_order_acquire);
    const size_t tail = mTail.load(std::memory_order_acquire);
    return tail >= head ? tail - head : tail + mSlots.size() - head;
  }
  size_t capacity() const { return mSlots.size() - 1; }

 private:
  size_t after(size_t index) const { return index + 1 == mSlots.size() ? 0 : index + 1; }

  std::vector<T> mSlots;  ///< one more than the capacity, so that full and empty differ
  alignas(64) std::atomic<size_t> mHead{0};
  alignas(64) std::atomic<size_t> mTail{0};
};

}  // namespace vesk
