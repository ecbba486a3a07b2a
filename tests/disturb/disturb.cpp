// Preloaded into tests, this makes threads late at random where they meet: at locks, pipes, waits, and when
// they begin. Disks are slow in it now and then. A test that is right only as long as the other thread or the
// disk is quick fails under it within a few runs, instead of once in a thousand on a busy machine.

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>
#include <random>
#include <string_view>
#include <thread>

namespace {

using std::chrono::microseconds;

struct Delay {
  uint32_t oneIn;  ///< calls
  uint32_t most;   ///< microseconds
};
constexpr Delay kDelays[] = {{600, 60'000}, {30, 3'000}, {4, 0}};
constexpr uint32_t kMostAtBeginning = 20'000;
/// Until a file is on the disk: unit tests ask for that often, programs at a movie's start and end.
constexpr Delay kTestsDisk = {10, 200'000};
constexpr Delay kProgramsDisk = {2, 2'500'000};

bool isUnitTest() {
  return std::string_view(program_invocation_short_name).substr(0, 5) == "test_";
}

/// The tests and the programs, and not what they start.
bool isMeant() {
  const std::string_view name = program_invocation_short_name;
  return name == "vesk" || name == "vesk-camera" || isUnitTest();
}

uint32_t anyBelow(uint32_t end) {
  thread_local std::minstd_rand random{std::random_device()()};
  return static_cast<uint32_t>(random()) % end;
}

void sleepUpTo(uint32_t most) {
  most == 0 ? std::this_thread::yield() : std::this_thread::sleep_for(microseconds(anyBelow(most)));
}

/// Does nothing, mostly. `errno` stays.
void beLate() {
  static const bool isActive = isMeant();
  thread_local bool isInside = false;  // what is called here may lock, too
  if (!isActive || isInside) return;
  const int error = errno;
  isInside = true;
  for (const Delay& delay : kDelays) {
    if (anyBelow(delay.oneIn) != 0) continue;
    sleepUpTo(delay.most);
    break;
  }
  isInside = false;
  errno = error;
}

void waitForDisk() {
  const Delay delay = isUnitTest() ? kTestsDisk : kProgramsDisk;
  if (isMeant() && anyBelow(delay.oneIn) == 0) sleepUpTo(delay.most);
}

template <class Call>
Call* next(const char* name) {
  return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

struct Beginning {
  void* (*run)(void*);
  void* argument;
};

void* beginLate(void* given) {
  const Beginning beginning = *static_cast<Beginning*>(given);
  delete static_cast<Beginning*>(given);
  if (isMeant() && anyBelow(4) == 0) sleepUpTo(kMostAtBeginning);
  return beginning.run(beginning.argument);
}

}  // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = next<int(pthread_mutex_t*)>("pthread_mutex_lock");
  beLate();
  return real(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static const auto real = next<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  const int answer = real(mutex);
  beLate();
  return answer;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) noexcept {
  static const auto real = next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  auto* const beginning = new (std::nothrow) Beginning{run, argument};
  return beginning ? real(thread, attributes, beginLate, beginning) : EAGAIN;
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
  static const auto real = next<int(pollfd*, nfds_t, int)>("poll");
  beLate();
  const int answer = real(descriptors, count, timeout);
  beLate();
  return answer;
}

ssize_t write(int descriptor, const void* bytes, size_t count) {
  static const auto real = next<ssize_t(int, const void*, size_t)>("write");
  beLate();
  const ssize_t answer = real(descriptor, bytes, count);
  beLate();
  return answer;
}

int fsync(int descriptor) {
  static const auto real = next<int(int)>("fsync");
  waitForDisk();
  return real(descriptor);
}

int fdatasync(int descriptor) {
  static const auto real = next<int(int)>("fdatasync");
  waitForDisk();
  return real(descriptor);
}
}
