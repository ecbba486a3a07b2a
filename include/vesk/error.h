#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <vesk/export.h>

namespace vesk {

/// Why something failed, for programs: they choose by it what to offer a person. More may be added.
enum class Cause : uint8_t {
  kNone,           ///< nothing failed
  kNoPermission,   ///< this user may not use the device, the file or the folder
  kBusy,           ///< in use by somebody else; `users` says by whom where that is known
  kNoBandwidth,    ///< the USB bus has no room left for the camera's stream
  kNotAnswering,   ///< the device or the server is there and does not answer
  kUnplugged,      ///< the device is not there any more
  kNoDevice,       ///< there is no such device
  kNoFormat,       ///< the device has no such format, or none that can be used
  kNotSupported,   ///< the device does not have what it is asked for
  kRefused,        ///< the device refused the parameters, the value or the request
  kNoSoundServer,  ///< there is no sound server to connect to
  kNoEncoder,      ///< the encoder that the format needs is missing
  kNoDisplay,      ///< there is no display, or none that can draw
  kDiskFull,       ///< no room is left on the disk
  kNoFile,         ///< there is no such file
  kFolderGone,     ///< the folder is not there, or is no folder
  kFileExists,     ///< a file of that name is there already
  kUnreadable,     ///< the file is damaged, or is not of the kind that it should be
  kFileError,      ///< the disk or the file system failed in another way
  kStalled,        ///< the camera is on and has stopped sending frames
  kSilent,         ///< the microphone is on and sends silence, or nothing
  kWrongUse,       ///< the call or its arguments make no sense at this point
  kOther,          ///< nothing of the above; `what` says it
};

/// The cause as lower-case words joined by hyphens, for JSON and logs: "no-permission"; "none" for kNone.
VESK_EXPORT std::string_view causeName(Cause cause);

/// A program that runs on this computer.
struct RunningProgram {
  int32_t process = 0;  ///< its number
  std::string name;     ///< as the kernel cuts it: at most 15 bytes; empty when it has none
  bool operator==(const RunningProgram&) const = default;
};

/// Why something failed, for a program (cause) and for a person (what, remedy). The layer that knows makes it,
/// the layers above carry it. Status numbers stay beside it: they say which operation answered, this says why.
///
/// `what` is one English line with all details in it. A host that has words of its own, as in another language, finds
/// the names that they need in `subject` and `users`.
struct Error {
  Cause cause = Cause::kNone;
  std::string what;    ///< one line: what failed, on which device or file; UTF-8, no full stop
  std::string remedy;  ///< what a person can do about it, one line of sentences; may be empty; names no program

  std::string subject;  ///< the device's name, or the file's or folder's path, that it is about; empty where none is
  std::vector<RunningProgram> users;  ///< the programs that use it (kBusy), as far as they can be seen

  /// Whether there is an error.
  explicit operator bool() const { return cause != Cause::kNone; }
  bool operator==(const Error&) const = default;
};

}  // namespace vesk
