#include "capture/simulated/simulated_commands.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include <vesk/log.h>
#include <vesk/vci.h>
#include "capture/simulated/simulated_source.h"

namespace vesk::capture {
namespace {

/// The faults that a word stands for; none when it is no such word.
std::optional<SimulatedFaults> faultsOf(std::string_view word) {
  SimulatedFaults faults;
  if (word == "well") return faults;
  if (word == "busy") {
    faults.startStatus = kVCIBusy;
    faults.error = {Cause::kBusy,
                    "the simulated device is in use by another program (viewer, pid 4242)",
                    "Close other programs that use it.",
                    "",
                    {{4242, "viewer"}}};
    return faults;
  }
  if (word == "silent") {
    faults.isStalled = true;
    return faults;
  }
  // A device that fails for the cause of that name: to be opened, where that is why real ones do not open.
  for (const Cause cause : {Cause::kNoPermission, Cause::kNotAnswering, Cause::kNoBandwidth}) {
    if (word != causeName(cause)) continue;
    faults.openFails = cause == Cause::kNoPermission;
    faults.startStatus = faults.propertyStatus = kVCIFailed;
    faults.error = {cause, "the simulated device fails on command: " + std::string(word), "Tell it to be well."};
    return faults;
  }
  return std::nullopt;
}

/// The pipe for reading; it is opened for writing too, so that it does not end with its first writer.
int openPipe(const char* path) {
  const int pipe = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  struct stat state {};
  if (pipe >= 0 && fstat(pipe, &state) == 0 && S_ISFIFO(state.st_mode)) return pipe;
  if (pipe >= 0) close(pipe);
  NSLog(LogLevel::kError, std::string("VESK_SIMULATED_COMMANDS: \"") + path + "\" is no pipe.");
  return -1;
}

}  // namespace

SimulatedCommands::SimulatedCommands(SimulatedSource& source) : mSource(source) {
  if (const char* const setup = std::getenv("VESK_SIMULATED_SETUP")) {
    std::string_view rest = setup;
    while (!rest.empty()) {
      const size_t end = rest.find(';');
      execute(rest.substr(0, end));
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
  }
  const char* const path = std::getenv("VESK_SIMULATED_COMMANDS");
  if (!path || !*path) return;
  mPipe = openPipe(path);
  mWake = eventfd(0, EFD_CLOEXEC);
  if (mPipe >= 0 && mWake >= 0) mReader = std::thread([this] { read(); });
}

SimulatedCommands::~SimulatedCommands() {
  if (mWake >= 0) eventfd_write(mWake, 1);
  if (mReader.joinable()) mReader.join();
  if (mPipe >= 0) close(mPipe);
  if (mWake >= 0) close(mWake);
}

void SimulatedCommands::execute(std::string_view command) {
  const size_t space = command.find(' ');
  const std::string_view word = command.substr(0, space);
  const std::string path(space == std::string_view::npos ? "" : command.substr(space + 1));
  bool isDone = false;
  if (word == "out")
    isDone = mSource.unplug(path);
  else if (word == "in")
    isDone = mSource.plugIn(path);
  else if (const auto faults = faultsOf(word))
    isDone = mSource.setFaults(path, *faults);
  mSource.waitForHotplug();  // subscribers compare lists: one change at a time
  if (!isDone) NSLog(LogLevel::kError, "The simulated devices cannot carry out \"" + std::string(command) + "\".");
}

void SimulatedCommands::read() {
  pthread_setname_np(pthread_self(), "vesk commands");
  std::string text;
  for (;;) {
    pollfd waiting[] = {{mPipe, POLLIN, 0}, {mWake, POLLIN, 0}};
    if (poll(waiting, 2, -1) < 0 || waiting[1].revents != 0) return;
    char bytes[512];
    const ssize_t count = ::read(mPipe, bytes, sizeof bytes);
    if (count > 0) text.append(bytes, static_cast<size_t>(count));
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
      execute(std::string_view(text).substr(0, end));
      text.erase(0, end + 1);
    }
  }
}

}  // namespace vesk::capture
