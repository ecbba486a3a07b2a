#pragma once

#include <string_view>
#include <thread>

namespace vesk::capture {

class SimulatedSource;

/// Commands to a simulated source from outside its process, so that whole programs can be tried with
/// devices that come, go and refuse:
///
///   out PATH    the device is unplugged          busy PATH    its starts are refused: in use elsewhere
///   in PATH     and in again                       silent PATH  nothing comes from it
///   no-permission PATH                             well PATH    nothing is wrong with it any more
///               it is not opened
///   no-bandwidth PATH, not-answering PATH          starts and controls fail for that cause
///
/// The environment variable VESK_SIMULATED_SETUP holds those that are carried out at once, separated by ";";
/// VESK_SIMULATED_COMMANDS names a pipe (mkfifo) from which more are read, one a line.
class SimulatedCommands {
 public:
  /// Carries out the first ones, and reads on. `source` must outlive it.
  explicit SimulatedCommands(SimulatedSource& source);
  ~SimulatedCommands();
  SimulatedCommands(const SimulatedCommands&) = delete;
  SimulatedCommands& operator=(const SimulatedCommands&) = delete;

 private:
  void execute(std::string_view command);
  void read();

  SimulatedSource& mSource;
  int mPipe = -1;
  int mWake = -1;
  std::thread mReader;
};

}  // namespace vesk::capture
