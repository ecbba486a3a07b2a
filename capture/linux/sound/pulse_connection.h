#pragma once

#include <pulse/pulseaudio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <string>

#include <vesk/error.h>

namespace vesk::capture {

struct PulseUnref {
  void operator()(pa_context* context) const noexcept { pa_context_unref(context); }
  void operator()(pa_operation* operation) const noexcept { pa_operation_unref(operation); }
};
/// A reference of its own: another thread may replace the connection's context meanwhile.
using PulseContext = std::unique_ptr<pa_context, PulseUnref>;

/// How patient a connection is with its server, whose own limit is half a minute for each question.
struct PulsePatience {
  std::chrono::milliseconds wait{2'000};        ///< at most, while one Lock is held
  std::chrono::milliseconds leftAlone{10'000};  ///< a server that did not answer in time
};

class SoundSystem;
/// The sound server's with another patience than the usual one; as makePulseSoundSystem of sound_system.h.
std::shared_ptr<SoundSystem> makePulseSoundSystem(Error& error, const PulsePatience& patience);

/// Sets the loudest channel to `level` and the others as far below it as they are. At 0 that cannot be seen
/// any more: `known`, the last volume above 0, remembers it.
void scaleKeepingBalance(pa_cvolume& volume, pa_cvolume& known, pa_volume_t level);

/// The connection to the machine's sound server: its thread, and the context on it, which is made
/// anew when the server has gone and come back.
///
/// A server that hangs is waited for once and then left alone for a while, with one line in the log:
/// until then everything that needs it fails at once.
///
/// Threads: every operation from any thread but its own (where the callbacks run).
class PulseConnection {
 public:
  /// Holds the connection's thread off; callbacks run only while nobody does. One for each call from
  /// outside: it bounds how long that call waits.
  class Lock {
   public:
    explicit Lock(PulseConnection& connection);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    // For the condition variable.
    void lock() { pa_threaded_mainloop_lock(mLoop); }
    void unlock() { pa_threaded_mainloop_unlock(mLoop); }

   private:
    friend class PulseConnection;
    pa_threaded_mainloop* const mLoop;
    const std::chrono::steady_clock::time_point mDeadline;
    std::string mLine;  ///< for the log, once it is unlocked
  };

  explicit PulseConnection(const PulsePatience& patience) : mPatience(patience) {}
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  /// Starts the thread and connects; starts no server. False with the error when none answers.
  bool begin(Error& error);

  /// Whether a server is connected. From any thread, without a Lock.
  bool isReady() const { return mIsReady; }

  // All below with a Lock held.
  /// The context, connected; null when no server answers.
  PulseContext context(Lock& lock);
  /// How often it has been made: a server that was started anew counts its sources from the beginning.
  unsigned connections() const { return mConnections; }
  /// Waits for an operation, and lets it go. @return false when it failed, took too long or there is none.
  bool finish(Lock& lock, pa_operation* operation);
  /// Lets the thread run until `isDone`, which is asked each time that it signals. @return false when the
  /// time is over: the server is left alone
  bool waitUntil(Lock& lock, const std::function<bool()>& isDone);
  bool isLeftAlone() const { return std::chrono::steady_clock::now() < mLeftAloneUntil; }
  void signal() { mSignalled.notify_all(); }
  std::string reason() const;
  /// Why nothing can be asked now; no error while a server is connected that answers.
  Error trouble() const;
  /// Called on the connection's thread when sources come, go or are replaced, or the server does.
  void setChangeHandler(std::function<void()> handler);

 private:
  bool connect(Lock& lock);
  void disconnect();
  void subscribe();
  static void stateChanged(pa_context* context, void* self);
  static void somethingChanged(pa_context* context, pa_subscription_event_type_t type, uint32_t index, void* self);

  const PulsePatience mPatience;
  pa_threaded_mainloop* mLoop = nullptr;
  bool mIsRunning = false;
  std::atomic<bool> mIsReady = false;  ///< the context has been connected and not failed since

  // All below with a Lock held.
  std::condition_variable_any mSignalled;  // the main loop's own cannot be waited for with a limit
  pa_context* mContext = nullptr;          // replaced only by whoever is connecting
  bool mIsConnecting = false;
  unsigned mConnections = 0;
  std::chrono::steady_clock::time_point mLeftAloneUntil;
  bool mHasLogged = false;  // that it hangs, and it has not answered since
  int mError = PA_OK;
  std::function<void()> mHandler;
};

}  // namespace vesk::capture
