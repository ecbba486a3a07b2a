#include <vesk/dispatch_queue.h>

#include <glib.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>

#include <vesk/log.h>
#include "platform/foundation/glib_ptr.h"
#include "platform/foundation/mutex.h"

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;
using Work = DispatchQueue::Work;

/// Threads of the global queue. More than there are cores, since its work may wait.
constexpr int kMostGlobalThreads = 16;

/// The queue (or the state behind it) whose work this thread is running.
thread_local const void* tRunning = nullptr;

/// Runs `work`; what it throws ends here.
void perform(const Work& work, const std::string& label) {
  try {
    work();
  } catch (const std::exception& error) {
    NSLog(LogLevel::kError, "Work on the queue \"" + label + "\" failed: " + error.what());
  } catch (...) {
    NSLog(LogLevel::kError, "Work on the queue \"" + label + "\" failed");
  }
}

void nameThisThread(const std::string& label) {
  constexpr size_t kLongest = 15;  // what the kernel keeps
  pthread_setname_np(pthread_self(), label.substr(0, kLongest).c_str());
}

/// What a serial queue and its thread share. It outlives the queue when the queue's last reference
/// goes on the queue's own thread.
class SerialState {
 public:
  explicit SerialState(std::string label) : mLabel(std::move(label)) {}

  void add(Work work) {
    MutexLock lock(mMutex);
    mReady.push_back(std::move(work));
    mChanged.notify_one();
  }

  void addAt(Clock::time_point time, Work work) {
    MutexLock lock(mMutex);
    mTimed.emplace(time, std::move(work));
    mChanged.notify_one();
  }

  /// The thread ends once nothing is waiting.
  void finish() {
    MutexLock lock(mMutex);
    mFinishing = true;
    mChanged.notify_one();
  }

  void run() {
    nameThisThread(mLabel);
    tRunning = this;
    while (const auto work = next()) perform(*work, mLabel);
  }

 private:
  /// Waits for the next piece of work; nothing at the end.
  std::optional<Work> next() {
    MutexLock lock(mMutex);
    for (;;) {
      moveDueWork();
      if (!mReady.empty()) {
        Work work = std::move(mReady.front());
        mReady.pop_front();
        return work;
      }
      if (!mTimed.empty()) {
        const auto time = mTimed.begin()->first;  // a copy: the entry may move while the lock is open
        mChanged.wait_until(mMutex, time);
      } else if (mFinishing) {
        return std::nullopt;
      } else {
        mChanged.wait(mMutex);
      }
    }
  }

  void moveDueWork() VESK_REQUIRES(mMutex) {
    const auto now = Clock::now();
    while (!mTimed.empty() && mTimed.begin()->first <= now) {
      mReady.push_back(std::move(mTimed.begin()->second));
      mTimed.erase(mTimed.begin());
    }
  }

  const std::string mLabel;
  Mutex mMutex;
  std::condition_variable_any mChanged;
  std::deque<Work> mReady VESK_GUARDED_BY(mMutex);
  std::multimap<Clock::time_point, Work> mTimed VESK_GUARDED_BY(mMutex);
  bool mFinishing VESK_GUARDED_BY(mMutex) = false;
};

class SerialQueue final : public DispatchQueue {
 public:
  explicit SerialQueue(const std::string& queueLabel)
      : DispatchQueue(queueLabel),
        mState(std::make_shared<SerialState>(queueLabel)),
        mThread([state = mState] { state->run(); }) {}

  ~SerialQueue() override {
    mState->finish();
    if (isCurrent())
      mThread.detach();
    else
      mThread.join();
  }

  void async(Work work) override { mState->add(std::move(work)); }
  void asyncAfter(std::chrono::microseconds delay, Work work) override {
    mState->addAt(Clock::now() + std::max(delay, std::chrono::microseconds::zero()), std::move(work));
  }
  bool isCurrent() const override { return tRunning == mState.get(); }

 private:
  std::shared_ptr<SerialState> mState;
  std::thread mThread;
};

/// Work on its way through GLib, which carries a number only. Handing the work over under a lock of
/// our own also lets the thread sanitizer, which cannot see into GLib, follow it.
class WorkTable {
 public:
  uintptr_t add(Work work) {
    MutexLock lock(mMutex);
    const uintptr_t number = ++mLast;
    mWork.emplace(number, std::move(work));
    return number;
  }

  Work take(uintptr_t number) {
    MutexLock lock(mMutex);
    auto node = mWork.extract(number);
    return node ? std::move(node.mapped()) : Work{};
  }

 private:
  Mutex mMutex;
  uintptr_t mLast VESK_GUARDED_BY(mMutex) = 0;
  std::unordered_map<uintptr_t, Work> mWork VESK_GUARDED_BY(mMutex);
};

class MainQueue final : public DispatchQueue {
 public:
  MainQueue() : DispatchQueue("main") {}

  void async(Work work) override { attach(0, std::move(work)); }
  void asyncAfter(std::chrono::microseconds delay, Work work) override {
    attach(g_get_monotonic_time() + std::max<int64_t>(delay.count(), 0), std::move(work));
  }

  /// The thread that iterates the context, or the process's first thread while none does.
  bool isCurrent() const override {
    GMainContext* const context = g_main_context_default();
    if (g_main_context_is_owner(context)) return true;
    if (gettid() != getpid() || !g_main_context_acquire(context)) return false;
    g_main_context_release(context);
    return true;
  }

 private:
  /// A source of its own for each piece of work: a loop run inside one piece serves the others.
  void attach(int64_t readyTime, Work work) {
    static GSourceFuncs functions = {nullptr, nullptr, dispatch, nullptr, nullptr, nullptr};
    const SourcePtr source = makeTimeSource(&functions, readyTime, reinterpret_cast<void*>(mWork.add(std::move(work))));
    g_source_attach(source.get(), g_main_context_default());
  }

  static gboolean dispatch(GSource*, GSourceFunc, void* number);

  WorkTable mWork;
};

MainQueue& theMainQueue() {
  // Never destroyed: sources may still be attached when the host's static objects go.
  static auto* const queue = new MainQueue();
  return *queue;
}

gboolean MainQueue::dispatch(GSource*, GSourceFunc, void* number) {
  perform(theMainQueue().mWork.take(reinterpret_cast<uintptr_t>(number)), theMainQueue().label());
  return G_SOURCE_REMOVE;
}

class GlobalQueue final : public DispatchQueue {
 public:
  GlobalQueue() : DispatchQueue("global"), mPool(g_thread_pool_new(runOne, this, kMostGlobalThreads, FALSE, nullptr)) {}

  void async(Work work) override {
    g_thread_pool_push(mPool, reinterpret_cast<void*>(mWork.add(std::move(work))), nullptr);
  }
  void asyncAfter(std::chrono::microseconds delay, Work work) override {
    static auto* const timing = new SerialQueue("global timing");
    timing->asyncAfter(delay, [this, work = std::move(work)]() mutable { async(std::move(work)); });
  }
  bool isCurrent() const override { return tRunning == this; }

 private:
  static void runOne(void* number, void* context) {
    auto* const queue = static_cast<GlobalQueue*>(context);
    tRunning = queue;
    perform(queue->mWork.take(reinterpret_cast<uintptr_t>(number)), queue->label());
    tRunning = nullptr;
  }

  WorkTable mWork;
  GThreadPool* const mPool;
};

/// A reference to a queue that is never destroyed.
std::shared_ptr<DispatchQueue> unowned(DispatchQueue& queue) {
  return {std::shared_ptr<void>(), &queue};
}

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::createSerial(std::string label) {
  return std::make_shared<SerialQueue>(label);
}

std::shared_ptr<DispatchQueue> DispatchQueue::mainQueue() {
  return unowned(theMainQueue());
}

std::shared_ptr<DispatchQueue> DispatchQueue::globalQueue() {
  static auto* const queue = new GlobalQueue();
  return unowned(*queue);
}

void DispatchQueue::sync(const Work& work) {
  if (isCurrent()) {
    assert(!dynamic_cast<SerialQueue*>(this) && "sync on the queue's own thread");
    perform(work, mLabel);
    return;
  }
  std::mutex mutex;
  std::condition_variable finished;
  bool isFinished = false;
  async([&] {
    perform(work, mLabel);
    const std::lock_guard lock(mutex);
    isFinished = true;
    finished.notify_one();  // under the lock: the waiting caller owns all of this
  });
  std::unique_lock lock(mutex);
  finished.wait(lock, [&] { return isFinished; });
}

}  // namespace vesk
