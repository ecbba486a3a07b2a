#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <vesk/export.h>

namespace vesk {

/// Runs pieces of work, one after the other in the order given (serial and main queue) or side by
/// side on a pool of threads (global queue).
///
/// Threads: every operation may be called from any thread. A serial queue owns one thread, named
/// after its label; the main queue is GLib's default main context and runs where the host iterates
/// it. Work that is still waiting when the last reference to a serial queue goes is run first; the
/// release then waits for it, unless it happens on the queue's own thread.
class VESK_EXPORT DispatchQueue {
 public:
  using Work = std::function<void()>;

  virtual ~DispatchQueue() = default;

  /// A new serial queue with a thread of its own.
  static std::shared_ptr<DispatchQueue> createSerial(std::string label);
  /// The queue of the main thread (GLib's default main context).
  static std::shared_ptr<DispatchQueue> mainQueue();
  /// The global queue of default priority.
  static std::shared_ptr<DispatchQueue> globalQueue();

  /// Adds work and returns at once.
  virtual void async(Work work) = 0;
  /// Adds work after `delay`.
  virtual void asyncAfter(std::chrono::microseconds delay, Work work) = 0;
  /// Adds work and waits until it has run. On the queue's own thread this would never end: it is
  /// a programming error there, except on the main queue, where the work is run at once.
  void sync(const Work& work);
  /// Whether the calling thread is the one that runs this queue's work at this moment.
  virtual bool isCurrent() const = 0;
  const std::string& label() const { return mLabel; }

 protected:
  explicit DispatchQueue(std::string label) : mLabel(std::move(label)) {}

 private:
  std::string mLabel;
};

}  // namespace vesk
