#pragma once

#include <string>
#include <vector>

#include <vesk/export.h>

namespace vesk::capture {

/// Something that was found out about the machine, for a person.
struct Finding {
  enum class Mark {
    kOk,
    kNote,     ///< worth knowing; works nevertheless
    kProblem,  ///< something does not work
  };

  Mark mark = Mark::kOk;
  std::string subject;  ///< "camera", "usb", "microphone", "encoder", "display" or "disk"
  std::string text;     ///< one line
  std::string remedy;   ///< what to do, one line; never empty for a problem
};

/// Where a diagnosis looks. Tests have folders of their own there.
struct DiagnosisPlaces {
  std::string dev = "/dev";
  std::string sys = "/sys";
  std::string proc = "/proc";
  std::string movies = ".";  ///< where recordings are to go
};

/// Looks at what cameras and microphones need on this machine: nodes, rights, who uses them, formats,
/// USB, the sound server, the encoder, the display, the disk. Changes nothing, and starts no capture.
///
/// May take a second. Any thread.
VESK_EXPORT std::vector<Finding> diagnose(const DiagnosisPlaces& places = {});

}  // namespace vesk::capture
