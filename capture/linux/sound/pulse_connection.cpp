#include "capture/linux/sound/pulse_connection.h"

#include <utility>

#include <vesk/log.h>

namespace vesk::capture {

using Clock = std::chrono::steady_clock;

PulseConnection::Lock::Lock(PulseConnection& connection)
    : mLoop(connection.mLoop), mDeadline(Clock::now() + connection.mPatience.wait) {
  lock();
}

PulseConnection::Lock::~Lock() {
  unlock();
  if (!mLine.empty()) NSLog(LogLevel::kWarning, mLine);
}

PulseConnection::~PulseConnection() {
  if (!mLoop) return;
  if (mIsRunning) {
    const Lock lock(*this);
    disconnect();
  }
  if (mIsRunning) pa_threaded_mainloop_stop(mLoop);
  pa_threaded_mainloop_free(mLoop);
}

bool PulseConnection::begin(Error& error) {
  mLoop = pa_threaded_mainloop_new();
  if (mLoop) pa_threaded_mainloop_set_name(mLoop, "vesk-pulse");  // once it runs, the caller might be named instead
  if (!mLoop || pa_threaded_mainloop_start(mLoop) < 0) {
    error = {Cause::kOther, "the sound server's client could not be started", ""};
    return false;
  }
  mIsRunning = true;
  Lock lock(*this);
  if (context(lock)) return true;
  error = {isLeftAlone() ? Cause::kNotAnswering : Cause::kNoSoundServer, "no sound server answers (" + reason() + ")",
           "Start the sound server."};
  return false;
}

/// One thread connects; the others wait for what comes of it.
PulseContext PulseConnection::context(Lock& lock) {
  while (!isLeftAlone()) {
    if (mContext && pa_context_get_state(mContext) == PA_CONTEXT_READY) return PulseContext(pa_context_ref(mContext));
    if (!mIsConnecting) return PulseContext(connect(lock) ? pa_context_ref(mContext) : nullptr);
    if (!mSignalled.wait_until(lock, lock.mDeadline, [this] { return !mIsConnecting; })) break;
  }
  return nullptr;
}

bool PulseConnection::connect(Lock& lock) {
  disconnect();
  mContext = pa_context_new(pa_threaded_mainloop_get_api(mLoop), "vesk");
  if (!mContext) return false;
  pa_context_set_state_callback(mContext, stateChanged, this);
  pa_context_set_subscribe_callback(mContext, somethingChanged, this);
  mIsConnecting = true;
  bool isInTime = true;
  if (pa_context_connect(mContext, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
    isInTime = waitUntil(lock, [this] {
      const pa_context_state_t state = pa_context_get_state(mContext);
      return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
  }
  mIsConnecting = false;
  signal();
  if (pa_context_get_state(mContext) == PA_CONTEXT_READY) {
    mIsReady = true;
    ++mConnections;
    subscribe();
    return true;
  }
  if (isInTime) mError = pa_context_errno(mContext);
  disconnect();
  return false;
}

void PulseConnection::disconnect() {
  if (!mContext) return;
  pa_context_set_state_callback(mContext, nullptr, nullptr);
  pa_context_set_subscribe_callback(mContext, nullptr, nullptr);
  pa_context_disconnect(mContext);
  pa_context_unref(mContext);
  mContext = nullptr;
  mIsReady = false;
}

bool PulseConnection::finish(Lock& lock, pa_operation* operation) {
  const std::unique_ptr<pa_operation, PulseUnref> held(operation);
  const auto isOver = [&] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; };
  if (operation && !waitUntil(lock, isOver)) {
    pa_operation_cancel(operation);  // or it would write into what the caller has left
    return false;
  }
  const bool isDone = operation && pa_operation_get_state(operation) == PA_OPERATION_DONE;
  if (isDone) {
    mHasLogged = false;
  } else if (mContext) {
    mError = pa_context_errno(mContext);
  }
  return isDone;
}

bool PulseConnection::waitUntil(Lock& lock, const std::function<bool()>& isDone) {
  if (mSignalled.wait_until(lock, lock.mDeadline, isDone)) return true;
  mError = PA_ERR_TIMEOUT;
  mLeftAloneUntil = Clock::now() + mPatience.leftAlone;
  if (!std::exchange(mHasLogged, true))
    lock.mLine =
        "The sound server does not answer: its microphones are left alone for a while. Restart it when this goes on.";
  signal();
  return false;
}

std::string PulseConnection::reason() const {
  return pa_strerror(mError);
}

Error PulseConnection::trouble() const {
  if (isLeftAlone()) return {Cause::kNotAnswering, "the sound server does not answer", "Restart the sound server."};
  if (!isReady())
    return {Cause::kNoSoundServer, "there is no sound server (" + reason() + ")", "Start the sound server."};
  return {};
}

void PulseConnection::setChangeHandler(std::function<void()> handler) {
  mHandler = std::move(handler);
  if (mContext && pa_context_get_state(mContext) == PA_CONTEXT_READY) subscribe();
}

void PulseConnection::subscribe() {
  if (!mHandler) return;
  pa_operation* operation = pa_context_subscribe(mContext, PA_SUBSCRIPTION_MASK_SOURCE, nullptr, nullptr);
  if (operation) pa_operation_unref(operation);
}

void PulseConnection::stateChanged(pa_context* context, void* self) {
  auto* connection = static_cast<PulseConnection*>(self);
  connection->signal();
  if (PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) return;
  connection->mError = pa_context_errno(context);
  // A connection that never stood has changed nothing: asking again would go on for ever.
  if (!connection->mIsReady.exchange(false)) return;
  if (connection->mHandler) connection->mHandler();  // with the server all its microphones have gone
}

void PulseConnection::somethingChanged(pa_context*, pa_subscription_event_type_t type, uint32_t, void* self) {
  auto* connection = static_cast<PulseConnection*>(self);
  const auto what = static_cast<unsigned>(type) & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
  if (what != PA_SUBSCRIPTION_EVENT_CHANGE && connection->mHandler) connection->mHandler();
}

}  // namespace vesk::capture
