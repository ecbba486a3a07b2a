#pragma once

#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include <vesk/error.h>

namespace vesk::program {

/// Exit statuses. They are part of the program's interface: scripts rely on them.
enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,
  kWrongUse = 2,
  kNoSuchDevice = 3,
  kBusy = 4,
  kInterrupted = 130,  ///< a signal ended it before it had done what it was asked for
};

/// Why a command could not do what it was asked: what failed, and what to do about it.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus exitStatus, const std::string& what, std::string remedy)
      : std::runtime_error(what), status(exitStatus), hint(std::move(remedy)), cause(usualCause(exitStatus)) {}
  /// Of an error of the library's, with the program's own commands added to its remedy.
  Failure(ExitStatus exitStatus, const Error& error);

  ExitStatus status;
  std::string hint;
  Cause cause;
  bool isReported = false;  ///< to the person already: JSON still has it, and the exit status stands

 private:
  static Cause usualCause(ExitStatus status);
};

/// A device that is not there: it may come.
class DeviceMissing : public Failure {
 public:
  DeviceMissing(const std::string& what, std::string remedy) : Failure(kNoSuchDevice, what, std::move(remedy)) {}
};

/// Options that stand before the command and hold for all of them.
struct GlobalOptions {
  std::string capture;  ///< empty: VESK_CAPTURE, else "linux"
  std::string pace = "realtime";
  bool loop = false;
  bool json = false;
  bool verbose = false;
};

/// Writes one JSON document as a line to standard output.
void printJson(const nlohmann::ordered_json& document);

/// Prints what failed for a person, and with --json for a script too. @return the exit status.
int report(const Failure& failure, const GlobalOptions& options);

}  // namespace vesk::program
