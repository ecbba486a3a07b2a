#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "capture/interface/monotonic_clock.h"

namespace vesk::capture {

/// The system calls that cameras are used through, so that tests can put a kernel of their own below
/// everything else. Errors are answered as negated errno values.
///
/// Threads: every operation from any thread.
class V4L2Calls {
 public:
  virtual ~V4L2Calls() = default;

  /// The calls of the machine.
  static std::shared_ptr<V4L2Calls> system();

  /// Opens a node for reading and writing, not blocking. @return its descriptor
  virtual int open(const std::string& node) = 0;
  virtual void close(int descriptor) = 0;
  /// Interrupted calls are made again.
  virtual int ioctl(int descriptor, unsigned long request, void* argument) = 0;
  /// Maps a buffer of the driver's for reading and writing; null when that fails.
  virtual uint8_t* map(int descriptor, size_t length, uint32_t offset) = 0;
  virtual void unmap(uint8_t* memory, size_t length) = 0;
  /// Waits for one of `descriptors`, at most `timeout` milliseconds. @return how many have something;
  /// 0 when the time is over
  virtual int poll(std::span<pollfd> descriptors, int timeout) = 0;
  /// The monotonic clock in microseconds, for how long something has taken.
  virtual int64_t now() { return monotonicMicroseconds(); }
};

}  // namespace vesk::capture
