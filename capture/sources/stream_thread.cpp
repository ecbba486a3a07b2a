#include "capture/sources/stream_thread.h"

#include <pthread.h>

#include <system_error>

namespace vesk::capture {

thread_local const StreamThread* StreamThread::tCurrent = nullptr;

StreamThread::~StreamThread() {
  // The thread holds a reference: when nobody has waited for it, this is its end.
  if (mThread.joinable()) mThread.detach();
}

void StreamThread::begin(const char* name) {
  mIsFinished = false;
  try {
    mThread = std::thread([self = shared_from_this(), name] {
      pthread_setname_np(pthread_self(), name);
      tCurrent = self.get();
      self->run();
      tCurrent = nullptr;
      self->mIsFinished = true;
    });
  } catch (const std::system_error&) {
    mIsFinished = true;
    throw;
  }
}

void StreamThread::stop() {
  requestEnd();
  if (isInside()) leave();
  wait();
}

void StreamThread::wait() {
  if (isInside()) return;
  MutexLock lock(mJoinMutex);
  if (mThread.joinable()) mThread.join();
}

}  // namespace vesk::capture
