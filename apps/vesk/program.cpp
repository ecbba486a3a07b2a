#include "apps/vesk/program.h"

#include <nlohmann/json.hpp>
#include <string>

#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

/// What of the program helps with failures of a cause; empty when nothing does.
std::string_view ownRemedy(Cause cause) {
  switch (cause) {
    case Cause::kNoPermission:
    case Cause::kNotAnswering:
    case Cause::kNoSoundServer:
    case Cause::kNoEncoder:
      return "\"vesk doctor\" looks for what is wrong.";
    case Cause::kUnplugged:
    case Cause::kNoDevice:
      return "\"vesk devices\" lists what there is.";
    case Cause::kNoFormat:
    case Cause::kNoBandwidth:
      return "\"vesk formats\" lists what it offers; choose with --format.";
    case Cause::kFileExists:
      return "--force replaces it.";
    case Cause::kStalled:
      return "\"vesk preview\" shows what a camera sends; choose it with --camera.";
    case Cause::kSilent:
      return "\"vesk meter\" shows what a microphone hears; choose it with --mic.";
    case Cause::kNotSupported:
      return "\"vesk controls list\" shows what it has.";
    case Cause::kNone:
    case Cause::kBusy:
    case Cause::kRefused:
    case Cause::kNoDisplay:
    case Cause::kDiskFull:
    case Cause::kNoFile:
    case Cause::kFolderGone:
    case Cause::kUnreadable:
    case Cause::kFileError:
    case Cause::kWrongUse:
    case Cause::kOther:
      break;
  }
  return "";
}

}  // namespace

Failure::Failure(ExitStatus exitStatus, const Error& error) : Failure(exitStatus, error.what + ".", error.remedy) {
  cause = error.cause;
  const std::string_view own = ownRemedy(cause);
  if (!own.empty()) hint += (hint.empty() ? "" : " ") + std::string(own);
}

Cause Failure::usualCause(ExitStatus status) {
  switch (status) {
    case kNoSuchDevice:
      return Cause::kNoDevice;
    case kBusy:
      return Cause::kBusy;
    case kWrongUse:
      return Cause::kWrongUse;
    case kDone:
    case kFailed:
    case kInterrupted:
      break;
  }
  return Cause::kOther;
}

void printJson(const nlohmann::ordered_json& document) {
  // Names of devices and files may hold bytes that are not UTF-8; they are replaced, never thrown at.
  const std::string text = document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  writeResult(text + "\n");
}

int report(const Failure& failure, const GlobalOptions& options) {
  if (!failure.isReported) reportLine("vesk: {}{}{}", failure.what(), failure.hint.empty() ? "" : " ", failure.hint);
  if (options.json) {
    printJson({{"error",
                {{"what", failure.what()},
                 {"status", static_cast<int>(failure.status)},
                 {"hint", failure.hint},
                 {"cause", causeName(failure.cause)}}}});
  }
  return failure.status;
}

}  // namespace vesk::program
