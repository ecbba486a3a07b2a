#include <vesk/error.h>

namespace vesk {

std::string_view causeName(Cause cause) {
  switch (cause) {
    case Cause::kNone:
      return "none";
    case Cause::kNoPermission:
      return "no-permission";
    case Cause::kBusy:
      return "busy";
    case Cause::kNoBandwidth:
      return "no-bandwidth";
    case Cause::kNotAnswering:
      return "not-answering";
    case Cause::kUnplugged:
      return "unplugged";
    case Cause::kNoDevice:
      return "no-device";
    case Cause::kNoFormat:
      return "no-format";
    case Cause::kNotSupported:
      return "not-supported";
    case Cause::kRefused:
      return "refused";
    case Cause::kNoSoundServer:
      return "no-sound-server";
    case Cause::kNoEncoder:
      return "no-encoder";
    case Cause::kNoDisplay:
      return "no-display";
    case Cause::kDiskFull:
      return "disk-full";
    case Cause::kNoFile:
      return "no-file";
    case Cause::kFolderGone:
      return "folder-gone";
    case Cause::kFileExists:
      return "file-exists";
    case Cause::kUnreadable:
      return "unreadable";
    case Cause::kFileError:
      return "file-error";
    case Cause::kStalled:
      return "stalled";
    case Cause::kSilent:
      return "silent";
    case Cause::kWrongUse:
      return "wrong-use";
    case Cause::kOther:
      break;
  }
  return "other";
}

}  // namespace vesk
