#include "capture/linux/nodes/open_node.h"

#include <cerrno>

#include <vesk/log.h>

namespace vesk::capture {
namespace {

constexpr int64_t kForgiven = 30'000'000;  // one time in so many microseconds may come from a busy moment
constexpr int64_t kLeftAlone = 10'000'000;

}  // namespace

int OpenNode::ask(unsigned long request, void* argument) const {
  if (mCalls->now() < mLeftAloneUntil) return -ETIMEDOUT;
  const int answer = ioctl(request, argument);
  if (answer != -ETIMEDOUT) return answer;  // the kernel's own memory may have answered: not a sign of life
  const int64_t now = mCalls->now();
  const int64_t before = mSilentAt.exchange(now);
  if (before == 0 || now - before > kForgiven) return answer;
  mLeftAloneUntil = now + kLeftAlone;
  if (!mHasLogged.exchange(true)) NSLog("the camera at " + mName + " does not answer when asked for its controls");
  return answer;
}

}  // namespace vesk::capture
