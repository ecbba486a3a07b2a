#include <vesk/run_loop.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <limits>
#include <thread>
#include <utility>

#include "platform/foundation/glib_ptr.h"
#include "platform/foundation/mutex.h"
#include "platform/foundation/run_loop_limit.h"

namespace vesk {
namespace {

using TimePoint = NSRunLoop::TimePoint;

int64_t glibTime(TimePoint time) {
  // Both clocks are CLOCK_MONOTONIC; rounded up, so that the source is not early.
  return std::chrono::ceil<std::chrono::microseconds>(time.time_since_epoch()).count();
}

/// Owns a context for as long as it lives, so that no other thread serves it.
class ContextOwner {
 public:
  explicit ContextOwner(GMainContext* context) : mContext(g_main_context_acquire(context) ? context : nullptr) {}
  ~ContextOwner() {
    if (mContext) g_main_context_release(mContext);
  }
  ContextOwner(const ContextOwner&) = delete;
  ContextOwner& operator=(const ContextOwner&) = delete;

  explicit operator bool() const { return mContext != nullptr; }

 private:
  GMainContext* const mContext;
};

/// Makes a context the thread's default one for as long as it lives.
class ThreadDefault {
 public:
  explicit ThreadDefault(GMainContext* context) : mContext(context) {
    if (mContext) g_main_context_push_thread_default(mContext);
  }
  ~ThreadDefault() {
    if (mContext) g_main_context_pop_thread_default(mContext);
  }
  ThreadDefault(const ThreadDefault&) = delete;
  ThreadDefault& operator=(const ThreadDefault&) = delete;

 private:
  GMainContext* const mContext;
};

/// A source that does nothing but end the context's waiting at its time.
class Alarm {
 public:
  Alarm(GMainContext* context, TimePoint time) {
    static GSourceFuncs functions = {nullptr, nullptr, [](GSource*, GSourceFunc, void*) -> gboolean { return TRUE; },
                                     nullptr, nullptr, nullptr};
    mSource = makeTimeSource(&functions, glibTime(time), nullptr);
    g_source_attach(mSource.get(), context);
  }
  ~Alarm() { g_source_destroy(mSource.get()); }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

 private:
  SourcePtr mSource;
};

constexpr int64_t kNoLimit = std::numeric_limits<int64_t>::max();
std::atomic<int64_t> gLongestRun{kNoLimit};  // microseconds

/// `deadline`, or the end of the longest run allowed, whichever is first.
TimePoint limited(TimePoint deadline) {
  const int64_t longest = gLongestRun;
  return longest == kNoLimit ? deadline
                             : std::min(deadline, TimePoint::clock::now() + std::chrono::microseconds(longest));
}

bool isMainThread() {
  return g_main_context_is_owner(g_main_context_default()) || gettid() == getpid();
}

}  // namespace

struct NSRunLoop::State {
  /// The context of a thread that has none.
  MainContextPtr ownContext;
  std::atomic<bool> stopped{false};
  Mutex mutex;
  std::condition_variable_any wake;
  /// The context that run() serves; null while it does not.
  GMainContext* running VESK_GUARDED_BY(mutex) = nullptr;

  /// The context that the calling thread serves, now.
  GMainContext* context() {
    if (GMainContext* const pushed = g_main_context_get_thread_default()) return pushed;
    if (isMainThread()) return g_main_context_default();
    if (!ownContext) ownContext.reset(g_main_context_new());
    return ownContext.get();
  }
};

NSRunLoop::NSRunLoop() : mState(std::make_unique<State>()) {}

NSRunLoop::~NSRunLoop() = default;

std::shared_ptr<NSRunLoop> NSRunLoop::currentRunLoop() {
  thread_local const auto loop = std::make_shared<NSRunLoop>();
  return loop;
}

void setLongestRunUntilDate(std::optional<std::chrono::microseconds> longest) {
  gLongestRun = longest ? longest->count() : kNoLimit;
}

void NSRunLoop::runUntilDate(TimePoint deadline) {
  deadline = limited(deadline);
  GMainContext* const context = mState->context();
  const ContextOwner owner(context);
  if (!owner) {
    std::this_thread::sleep_until(deadline);
    return;
  }
  const ThreadDefault asDefault(context == mState->ownContext.get() ? context : nullptr);
  const Alarm alarm(context, deadline);
  do {
    g_main_context_iteration(context, TRUE);
  } while (TimePoint::clock::now() < deadline);
}

void NSRunLoop::run() {
  GMainContext* const context = mState->context();
  const ContextOwner owner(context);
  const ThreadDefault asDefault(context == mState->ownContext.get() ? context : nullptr);
  GMainContext* outer = nullptr;
  {
    MutexLock lock(mState->mutex);
    outer = std::exchange(mState->running, context);
    while (!owner && !mState->stopped) mState->wake.wait(mState->mutex);
  }
  while (!mState->stopped.exchange(false)) g_main_context_iteration(context, TRUE);
  MutexLock lock(mState->mutex);
  mState->running = outer;
}

void NSRunLoop::stop() {
  MutexLock lock(mState->mutex);
  mState->stopped = true;
  mState->wake.notify_all();
  if (mState->running) g_main_context_wakeup(mState->running);
}

}  // namespace vesk
