#include "apps/camera/frame_steps.h"

#include <chrono>
#include <utility>

namespace vesk::camera {
namespace {

/// Mostly one step. What was made takes far longer to be laid out and drawn for the first time: 10 to 20 ms for a row
/// of a kind that the window did not have yet, without a graphics card.
constexpr std::chrono::milliseconds kTimeInAFrame{1};

}  // namespace

void FrameSteps::add(std::function<void()> step) {
  mSteps.push_back(std::move(step));
  if (mTick != 0) return;
  mIsFirst = true;
  mTick = mWidget.add_tick_callback([this](const Glib::RefPtr<Gdk::FrameClock>&) { return doSome(); });
}

void FrameSteps::clear() {
  mSteps.clear();
  if (mTick != 0) mWidget.remove_tick_callback(std::exchange(mTick, 0));
}

/// @return whether there is more to do
bool FrameSteps::doSome() {
  if (std::exchange(mIsFirst, false)) return true;
  const auto end = std::chrono::steady_clock::now() + kTimeInAFrame;
  while (!mSteps.empty() && std::chrono::steady_clock::now() < end) {
    const auto step = std::move(mSteps.front());
    mSteps.pop_front();
    step();
  }
  if (mSteps.empty()) mTick = 0;
  return mTick != 0;
}

}  // namespace vesk::camera
