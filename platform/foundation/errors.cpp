#include "platform/foundation/errors.h"

#include <cctype>
#include <cerrno>
#include <new>

#include <vesk/log.h>

namespace vesk {
namespace {

/// For whatever the computer lacks: memory, threads, open files.
constexpr const char* kResourceRemedy = "Close other programs.";

}  // namespace

Cause fileCause(int error) {
  switch (error) {
    case 0:
      return Cause::kNone;
    case EACCES:
    case EPERM:
    case EROFS:
      return Cause::kNoPermission;
    case EBUSY:
    case EWOULDBLOCK:
    case ETXTBSY:
      return Cause::kBusy;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return Cause::kDiskFull;
    case ENOENT:
      return Cause::kNoFile;
    case ENOTDIR:
    case ENODEV:
    case ENXIO:
    case ESTALE:
      return Cause::kFolderGone;
    case EEXIST:
    case ENOTEMPTY:
      return Cause::kFileExists;
    case EISDIR:
    case ENAMETOOLONG:
    case EINVAL:
    case ELOOP:
      return Cause::kWrongUse;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return Cause::kOther;  // the computer lacks something, not the disk
    default:
      return Cause::kFileError;
  }
}

std::string fileRemedy(Cause cause) {
  switch (cause) {
    case Cause::kNoPermission:
      return "Choose a place that you may write to.";
    case Cause::kDiskFull:
      return "Make room on the disk, or choose another one.";
    case Cause::kNoFile:
    case Cause::kFolderGone:
      return "See that the disk is attached and the folder exists.";
    case Cause::kFileExists:
    case Cause::kWrongUse:
      return "Choose another name.";
    case Cause::kBusy:
      return "Close the other program.";
    case Cause::kFileError:
      return "See that the disk works and is not write-protected.";
    case Cause::kOther:
      return kResourceRemedy;
    default:
      return "";
  }
}

Error errorOf(const NSError& error) {
  if (!error) return {};
  std::string what = error.description;
  if (!what.empty()) what.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(what.front())));
  return {error.cause, std::move(what), fileRemedy(error.cause), error.path};
}

Error errorOf(const std::string& what, const std::exception& reason, std::string subject) {
  const bool isMemory = dynamic_cast<const std::bad_alloc*>(&reason) != nullptr;
  return {Cause::kOther, what + ": " + (isMemory ? "there is not enough memory" : reason.what()), kResourceRemedy,
          std::move(subject)};
}

std::string sentences(const Error& error) {
  std::string text = error.what;
  if (!text.empty()) text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
  text += ".";
  if (error.remedy.empty()) return text;
  return text + " " + error.remedy + (error.remedy.back() == '.' ? "" : ".");
}

void logError(const Error& error) {
  if (error) NSLog(sentences(error));
}

}  // namespace vesk
