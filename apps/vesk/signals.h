#pragma once

#include <functional>

namespace vesk::program {

/// Takes SIGINT, SIGTERM and SIGHUP (that one unless it is ignored, as nohup has it) on a thread of their
/// own, so that they are heeded whatever the other threads wait for. The first ends the program at once
/// unless somebody attends to it; the second always does. Ignores SIGPIPE and SIGXFSZ: a write that fails
/// is an error where it is made. Before any other thread is started.
void setUpSignals();

/// Whether a signal has asked for the end. From any thread.
bool isEndAsked();

/// Attends to the first signal for as long as it lives: `handler`, where there is one, is called on the
/// signals' thread, or at once where a signal has come before. One at a time.
class SignalAttendant {
 public:
  explicit SignalAttendant(std::function<void()> handler);
  ~SignalAttendant();
  SignalAttendant(const SignalAttendant&) = delete;
  SignalAttendant& operator=(const SignalAttendant&) = delete;
};

}  // namespace vesk::program
