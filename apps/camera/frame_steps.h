#pragma once

#include <gtkmm.h>

#include <deque>
#include <functional>

namespace vesk::camera {

/// Makes widgets in steps, some before each frame, so that the live picture does not stand still meanwhile. The first
/// frame shows what is there already.
class FrameSteps {
 public:
  /// In the frames of `widget`, whose member this is: it goes on while that is on the screen.
  explicit FrameSteps(Gtk::Widget& widget) : mWidget(widget) {}
  ~FrameSteps() { clear(); }
  FrameSteps(const FrameSteps&) = delete;
  FrameSteps& operator=(const FrameSteps&) = delete;

  void add(std::function<void()> step);
  /// Takes back what has not been done.
  void clear();

 private:
  bool doSome();

  Gtk::Widget& mWidget;
  std::deque<std::function<void()>> mSteps;
  guint mTick = 0;  ///< 0 while there is nothing to do
  bool mIsFirst = false;
};

}  // namespace vesk::camera
