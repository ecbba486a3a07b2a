#include <algorithm>
#include <utility>
#include <vector>

#include <vesk/capture_host.h>
#include "capture/interface/monotonic_clock.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

struct Transport::State {
  struct Observer {
    std::weak_ptr<void> owner;
    std::function<void()> changed;
  };

  Mutex mutex;
  std::optional<int64_t> heldSince VESK_GUARDED_BY(mutex);
  int64_t releasedAt VESK_GUARDED_BY(mutex) = 0;
  int64_t heldTime VESK_GUARDED_BY(mutex) = 0;  // of the holds before
  std::optional<double> limit VESK_GUARDED_BY(mutex);
  std::shared_ptr<const std::function<bool()>> isBusy VESK_GUARDED_BY(mutex);
  std::function<void()> ended VESK_GUARDED_BY(mutex);
  std::vector<Observer> observers VESK_GUARDED_BY(mutex);
  int runningSources VESK_GUARDED_BY(mutex) = 0;

  // Observers take their own locks, under which they ask the transport: call them without ours.
  void notifyObservers() {
    std::vector<Observer> notified;
    {
      MutexLock lock(mutex);
      std::erase_if(observers, [](const Observer& observer) { return observer.owner.expired(); });
      notified = observers;
    }
    for (const Observer& observer : notified) {
      if (const auto alive = observer.owner.lock()) observer.changed();
    }
  }
};

Transport& Transport::shared() {
  static Transport* const transport = new Transport;  // outlives every thread that may ask for it
  return *transport;
}

Transport::Transport() : mState(std::make_unique<State>()) {}
Transport::~Transport() = default;

void Transport::hold() {
  {
    MutexLock lock(mState->mutex);
    if (!mState->heldSince) mState->heldSince = monotonicMicroseconds();
  }
  mState->notifyObservers();
}

void Transport::release() {
  {
    MutexLock lock(mState->mutex);
    if (!mState->heldSince) return;
    mState->releasedAt = monotonicMicroseconds();
    mState->heldTime += mState->releasedAt - *mState->heldSince;
    mState->heldSince.reset();
  }
  mState->notifyObservers();
}

void Transport::setLimit(std::optional<double> seconds) {
  {
    MutexLock lock(mState->mutex);
    mState->limit = seconds;
  }
  mState->notifyObservers();
}

void Transport::setBackpressure(std::function<bool()> isBusy) {
  auto shared = isBusy ? std::make_shared<const std::function<bool()>>(std::move(isBusy)) : nullptr;
  MutexLock lock(mState->mutex);
  mState->isBusy = std::move(shared);
}

void Transport::askAgain() {
  mState->notifyObservers();
}

void Transport::setEndHandler(std::function<void()> handler) {
  MutexLock lock(mState->mutex);
  mState->ended = std::move(handler);
}

bool Transport::isHeld() const {
  MutexLock lock(mState->mutex);
  return mState->heldSince.has_value();
}

int64_t Transport::releasedAt() const {
  MutexLock lock(mState->mutex);
  return mState->releasedAt;
}

int64_t Transport::heldTime() const {
  MutexLock lock(mState->mutex);
  return mState->heldTime + (mState->heldSince ? monotonicMicroseconds() - *mState->heldSince : 0);
}

std::optional<double> Transport::limit() const {
  MutexLock lock(mState->mutex);
  return mState->limit;
}

bool Transport::isBusy() const {
  std::shared_ptr<const std::function<bool()>> isBusy;
  {
    MutexLock lock(mState->mutex);
    isBusy = mState->isBusy;
  }
  return isBusy && (*isBusy)();
}

void Transport::sourceStarted() {
  MutexLock lock(mState->mutex);
  ++mState->runningSources;
}

void Transport::sourceEnded() {
  std::function<void()> ended;
  {
    MutexLock lock(mState->mutex);
    mState->runningSources = std::max(0, mState->runningSources - 1);
    if (mState->runningSources == 0) ended = mState->ended;
  }
  if (ended) ended();
}

void Transport::sourceStopped() {
  MutexLock lock(mState->mutex);
  mState->runningSources = std::max(0, mState->runningSources - 1);
}

void Transport::addObserver(std::weak_ptr<void> owner, std::function<void()> changed) {
  MutexLock lock(mState->mutex);
  mState->observers.push_back({std::move(owner), std::move(changed)});
}

}  // namespace vesk::capture
