#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "capture/linux/nodes/v4l2_calls.h"

namespace vesk::capture {

/// An open video node, closed with its last user. Every operation from any thread.
class OpenNode {
 public:
  /// Null when it cannot be opened; `error` is then the errno value.
  /// @param camera its name, for errors
  static std::shared_ptr<OpenNode> open(std::shared_ptr<V4L2Calls> calls, const std::string& node, int& error,
                                        std::string camera = {}) {
    const int descriptor = calls->open(node);
    error = descriptor < 0 ? -descriptor : 0;
    if (descriptor < 0) return nullptr;
    return std::make_shared<OpenNode>(std::move(calls), node, descriptor, std::move(camera));
  }

  OpenNode(std::shared_ptr<V4L2Calls> calls, std::string name, int descriptor, std::string camera)
      : mCalls(std::move(calls)), mName(std::move(name)), mCamera(std::move(camera)), mDescriptor(descriptor) {}
  ~OpenNode() { mCalls->close(mDescriptor); }
  OpenNode(const OpenNode&) = delete;
  OpenNode& operator=(const OpenNode&) = delete;

  const std::string& name() const { return mName; }      ///< "/dev/video0"
  const std::string& camera() const { return mCamera; }  ///< the camera's name; may be empty
  V4L2Calls& calls() const { return *mCalls; }
  int descriptor() const { return mDescriptor; }
  int ioctl(unsigned long request, void* argument) const { return mCalls->ioctl(mDescriptor, request, argument); }
  /// A call about a control, which the camera itself may have to answer. The kernel waits seconds for one
  /// that hangs, for each of its controls anew; so after a second call in vain it is left alone for a
  /// while: the log says so, and calls are answered with ETIMEDOUT at once.
  int ask(unsigned long request, void* argument) const;

 private:
  const std::shared_ptr<V4L2Calls> mCalls;
  const std::string mName;
  const std::string mCamera;
  const int mDescriptor;
  // Microseconds of the monotonic clock.
  mutable std::atomic<int64_t> mSilentAt = 0;  ///< when it last did not answer; 0: it always did
  mutable std::atomic<int64_t> mLeftAloneUntil = 0;
  mutable std::atomic<bool> mHasLogged = false;
};

}  // namespace vesk::capture
