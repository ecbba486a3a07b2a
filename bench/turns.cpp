/// Preloaded into a program with a GLib main loop, this logs each turn of the loop that kept the main thread for long:
/// the time between two polls of GLib's. Waits in the middle of a turn (for an answer of the display's, a lock) count.
///
/// Environment: VESK_TURNS is the file that lines are added to, VESK_TURNS_LONG what is long, in ms (20). A line is the
/// monotonic time at which the turn began, how long it took and how much of that the main thread ran, all in ms.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

double now(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

struct Turn {
  double begin = now(CLOCK_MONOTONIC);
  double ran = now(CLOCK_THREAD_CPUTIME_ID);
};

const void* libraryOf(const void* address) {
  Dl_info info{};
  return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

/// The X library and others poll too, inside a turn.
bool isMainLoop(const void* caller) {
  static const void* const glib = libraryOf(dlsym(RTLD_DEFAULT, "g_poll"));
  return gettid() == getpid() && glib && libraryOf(caller) == glib;
}

void log(const Turn& turn) {
  static const char* const file = std::getenv("VESK_TURNS");
  static const char* const limit = std::getenv("VESK_TURNS_LONG");
  static const double longest = limit ? std::atof(limit) : 20;
  static const int log = file ? open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666) : STDERR_FILENO;
  const double took = now(CLOCK_MONOTONIC) - turn.begin;
  if (took >= longest) dprintf(log, "%.1f %.1f %.1f\n", turn.begin, took, now(CLOCK_THREAD_CPUTIME_ID) - turn.ran);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int poll(pollfd* files, nfds_t count, int timeout) {
  static const auto original = reinterpret_cast<int (*)(pollfd*, nfds_t, int)>(dlsym(RTLD_NEXT, "poll"));
  if (!isMainLoop(__builtin_return_address(0))) return original(files, count, timeout);
  static Turn turn;
  log(turn);
  const int status = original(files, count, timeout);
  turn = Turn();
  return status;
}
