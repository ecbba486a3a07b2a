#include "apps/vesk/signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "apps/vesk/program.h"

namespace vesk::program {
namespace {

struct Attention {
  std::mutex mutex;  ///< guards what follows
  bool isAttended = false;
  std::function<void()> handler;
};

Attention& attention() {
  static auto* const shared = new Attention;  // outlives every thread
  return *shared;
}

std::atomic<bool> gIsEndAsked{false};

void signalArrived() {
  const bool isSecond = gIsEndAsked.exchange(true);
  if (isSecond) _exit(kInterrupted);
  Attention& of = attention();
  const std::lock_guard lock(of.mutex);
  if (!of.isAttended) _exit(kInterrupted);
  if (of.handler) of.handler();
}

void takeSignals(const sigset_t& set) {
  for (;;) {
    int number = 0;
    if (sigwait(&set, &number) == 0) signalArrived();
  }
}

bool isIgnored(int number) {
  struct sigaction action = {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void setUpSignals() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  if (!isIgnored(SIGHUP)) sigaddset(&set, SIGHUP);
  // A shell starts background commands with SIGINT ignored; "kill -INT" is to end a recording there too.
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // every thread to come inherits it
  try {
    std::thread([set] {
      pthread_setname_np(pthread_self(), "signals");
      takeSignals(set);
    }).detach();
  } catch (const std::system_error&) {
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // no thread is to be had: they end the program as any other
  }
}

bool isEndAsked() {
  return gIsEndAsked;
}

SignalAttendant::SignalAttendant(std::function<void()> handler) {
  Attention& of = attention();
  const std::lock_guard lock(of.mutex);
  of.isAttended = true;
  of.handler = std::move(handler);
  if (gIsEndAsked && of.handler) of.handler();
}

SignalAttendant::~SignalAttendant() {
  Attention& of = attention();
  const std::lock_guard lock(of.mutex);
  of.isAttended = false;
  of.handler = nullptr;
}

}  // namespace vesk::program
