#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <vesk/error.h>
#include <vesk/export.h>

namespace vesk {

/// Something that was found out about the machine, for a person.
///
/// `text` and `remedy` are English, with all details in them. A host that has words of its own, as in another language,
/// makes them of `kind` and `details`.
struct Finding {
  enum class Mark {
    kOk,
    kNote,     ///< worth knowing; works nevertheless
    kProblem,  ///< something does not work
  };

  /// What it is, with the details that it has. More may be added.
  enum class Kind : uint8_t {
    kOther,              ///< nothing of the below; `text` says it
    kCamera,             ///< a camera that works: device, files, formats, canBeEncoded
    kNoCamera,           ///< there is none
    kNoDriver,           ///< a USB camera that no driver has taken: device
    kNodeMissing,        ///< the kernel has the camera, but its file is not there: device, files
    kNoFormat,           ///< it offers no format that is understood here: device, files
    kNotAnswering,       ///< it does not answer when asked for a format: device, files
    kInUse,              ///< a camera that others use: device, files, users, areUsersHidden
    kOpenElsewhere,      ///< others have it open and do not use it now: device, files, users
    kMetadata,           ///< a node of data about a camera's pictures: device, files
    kConverter,          ///< a node that converts pictures: device, files
    kOutput,             ///< a node that pictures are sent to: device, files
    kNoPictures,         ///< another node that no pictures come from: device, files
    kNotLetIn,           ///< a file that nobody may open here, as in a container: files
    kNotOpened,          ///< a file that could not be opened: files, number (an errno value)
    kSystemsOwn,         ///< a file that no group may use: files
    kGroupWithoutRight,  ///< a file whose group has no right to it either: files, group
    kNotYetInGroup,      ///< the user was added to the file's group, but not in this session: files, group, user
    kNotInGroup,         ///< the user is not in the file's group: files, group, user
    kUsbSpeed,           ///< how a camera is attached: device, number (Mbit/s)
    kUsbSlow,            ///< the same, too slow for more than small pictures: device, number (Mbit/s)
    kUsbShared,          ///< cameras that share a USB bus: device and others, number (of the bus)
    kMicrophone,         ///< a microphone that works: device, others (the camera that it is built into)
    kNoMicrophone,       ///< there is none
    kSoundServer,        ///< a sound server answers
    kNoSoundServer,      ///< none answers; sound is recorded from the drivers
    kSoundFileMissing,   ///< the kernel has a sound card, but its file is not there: files
    kEncoder,            ///< H.264 can be encoded
    kNoEncoder,          ///< it cannot
    kDisplay,            ///< there is a display
    kNoDisplay,          ///< there is none
    kDisk,               ///< there is room for movies: files (the folder), number (free bytes)
    kDiskFull,           ///< there is hardly any: files (the folder), number (free bytes)
    kFolderNotWritable,  ///< movies cannot be written there: files (the folder)
  };

  /// A codec that a camera offers.
  struct Format {
    uint32_t codec = 0;  ///< kCMVideoCodecType_… or kCMPixelFormat_…
    int32_t width = 0;   ///< of the largest size, in pixels
    int32_t height = 0;
  };

  /// What `kind` names of these; the rest is empty.
  struct Details {
    std::string device;                 ///< the name of the camera or microphone
    std::vector<std::string> others;    ///< the names of other devices
    std::vector<std::string> files;     ///< device files, or the folder of movies
    std::vector<RunningProgram> users;  ///< programs that have the device open, as far as they can be seen
    bool areUsersHidden = false;        ///< there are programs of other users, which cannot be looked into
    std::string group;                  ///< that the file belongs to
    std::string user;                   ///< that this process belongs to
    std::vector<Format> formats;
    bool canBeEncoded = false;  ///< H.264 can be encoded of its pictures
    int64_t number = 0;
  };

  Mark mark = Mark::kOk;
  std::string subject;         ///< "camera", "usb", "microphone", "encoder", "display" or "disk"
  std::string text;            ///< one line
  std::string remedy;          ///< what to do, one line; never empty for a problem; names no program of ours
  Cause cause = Cause::kNone;  ///< what kind of a problem; kNone where all is well
  Kind kind = Kind::kOther;
  Details details;
};

/// Looks at what cameras and microphones need on this machine: nodes, rights, who uses them, formats, USB, the sound
/// server, the encoder, the display, and the disk of the folder `movies`, where recordings are to go. Changes
/// nothing, and starts no capture.
///
/// May take a second. Any thread.
VESK_EXPORT std::vector<Finding> diagnose(const std::string& movies = ".");

}  // namespace vesk
