#pragma once

#include <pulse/pulseaudio.h>

#include <atomic>
#include <functional>
#include <string>

namespace vesk::capture {

/// The connection to the machine's sound server: its thread, and the context on it, which is made
/// anew when the server has gone and come back.
///
/// Threads: every operation from any thread but its own (where the callbacks run).
class PulseConnection {
 public:
  /// Holds the connection's thread off; callbacks run only while nobody does.
  class Lock {
   public:
    explicit Lock(PulseConnection& connection) : mLoop(connection.mLoop) { pa_threaded_mainloop_lock(mLoop); }
    ~Lock() { pa_threaded_mainloop_unlock(mLoop); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    pa_threaded_mainloop* const mLoop;
  };

  PulseConnection() = default;
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  /// Starts the thread and connects; starts no server. False with the reason when none answers.
  bool begin(std::string& error);

  /// Whether a server is connected. From any thread, without a Lock.
  bool isReady() const { return mIsReady; }

  // All below with a Lock held.
  /// The context, connected; null when no server answers. Valid while the lock is held.
  pa_context* context();
  /// Waits for an operation, and lets it go. @return false when it failed or there is none.
  bool finish(pa_operation* operation);
  /// Lets the thread run until it signals.
  void wait() { pa_threaded_mainloop_wait(mLoop); }
  void signal() { pa_threaded_mainloop_signal(mLoop, 0); }
  std::string reason() const;
  /// Called on the connection's thread when sources come, go or are replaced, or the server does.
  void setChangeHandler(std::function<void()> handler);

 private:
  bool connect();
  void disconnect();
  void subscribe();
  static void stateChanged(pa_context* context, void* self);
  static void somethingChanged(pa_context* context, pa_subscription_event_type_t type, uint32_t index, void* self);

  pa_threaded_mainloop* mLoop = nullptr;
  pa_context* mContext = nullptr;
  bool mIsRunning = false;
  std::atomic<bool> mIsReady = false;  ///< the context has been connected and not failed since
  int mError = PA_OK;
  std::function<void()> mHandler;
};

}  // namespace vesk::capture
