#pragma once

#include <cstdint>
#include <memory>

#include <vesk/export.h>
#include <vesk/geometry.h>

namespace vesk {

/// What the pointer did, in the view's points.
struct NSEvent {
  NSPoint location;
};

/// Hears of the pointer. Threads: the main thread.
class VESK_EXPORT NSResponder {
 public:
  virtual ~NSResponder() = default;
  virtual void mouseEntered(const NSEvent& /*event*/) {}
  virtual void mouseExited(const NSEvent& /*event*/) {}
  virtual void mouseMoved(const NSEvent& /*event*/) {}
  /// Whether it takes the keyboard.
  virtual bool acceptsFirstResponder() { return false; }
  /// Whether the click that brings its window to the front is also its own.
  virtual bool acceptsFirstMouse(const NSEvent& /*event*/) { return false; }
};

enum NSTrackingAreaOptions : uint32_t {
  NSTrackingMouseEnteredAndExited = 0x01,
  NSTrackingMouseMoved = 0x02,
  NSTrackingActiveInKeyWindow = 0x20,  ///< silent while the window has not the keyboard's focus
  NSTrackingInVisibleRect = 0x200,     ///< the area follows the view's bounds; its rectangle is ignored
};

/// A region of a view in which the pointer is followed.
class VESK_EXPORT NSTrackingArea {
 public:
  /// `owner` hears of the pointer; it must outlive the area.
  static std::shared_ptr<NSTrackingArea> initWithRect(NSRect rect, uint32_t options, NSResponder* owner) {
    return std::make_shared<NSTrackingArea>(rect, options, owner);
  }

  NSRect rect() const { return mRect; }
  uint32_t options() const { return mOptions; }
  NSResponder* owner() const { return mOwner; }

  NSTrackingArea(NSRect rect, uint32_t options, NSResponder* owner) : mRect(rect), mOptions(options), mOwner(owner) {}

 private:
  friend class NSOpenGLView;

  NSRect mRect;
  uint32_t mOptions;
  NSResponder* mOwner;
  bool mHoldsPointer = false;
};

}  // namespace vesk
