#include "platform/foundation/errors.h"

#include <cctype>
#include <cerrno>

#include <vesk/log.h>

namespace vesk {

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
    default:
      return Cause::kFileError;
  }
}

std::string sentences(const Error& error) {
  std::string text = error.what;
  if (!text.empty()) text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
  text += ".";
  if (!error.remedy.empty()) text += " " + error.remedy;
  return text;
}

void logError(const Error& error) {
  if (error) NSLog(sentences(error));
}

}  // namespace vesk
