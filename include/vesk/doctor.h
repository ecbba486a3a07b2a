#pragma once

#include <string>
#include <vector>

#include <vesk/error.h>
#include <vesk/export.h>

namespace vesk {

/// Something that was found out about the machine, for a person.
struct Finding {
  enum class Mark {
    kOk,
    kNote,     ///< worth knowing; works nevertheless
    kProblem,  ///< something does not work
  };

  Mark mark = Mark::kOk;
  std::string subject;         ///< "camera", "usb", "microphone", "encoder", "display" or "disk"
  std::string text;            ///< one line
  std::string remedy;          ///< what to do, one line; never empty for a problem; names no program of ours
  Cause cause = Cause::kNone;  ///< what kind of a problem; kNone where all is well
};

/// Looks at what cameras and microphones need on this machine: nodes, rights, who uses them, formats, USB, the sound
/// server, the encoder, the display, and the disk of the folder `movies`, where recordings are to go. Changes
/// nothing, and starts no capture.
///
/// May take a second. Any thread.
VESK_EXPORT std::vector<Finding> diagnose(const std::string& movies = ".");

}  // namespace vesk
