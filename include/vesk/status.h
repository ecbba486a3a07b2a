#pragma once

#include <cstdint>

namespace vesk {

/// What operations of devices and sessions answer.
enum : int32_t {
  kVeskStatusSuccess = 0,
  kVeskStatusNoMovieCreator = 1,    ///< the movie's creator could not be made
  kVeskStatusNoFormat = 2,          ///< no format has been chosen, or the device refuses it
  kVeskStatusNoView = 2,            ///< (previews) there is no view to show the camera in
  kVeskStatusNotOpen = 3,           ///< the device is not open
  kVeskStatusNoDevice = 3,          ///< (previews) there is no device
  kVeskStatusMicrophoneInUse = 5,   ///< another program has the microphone
  kVeskStatusCameraInUse = 6,       ///< another program has the camera
  kVeskStatusFailed = 7,            ///< the device could not be opened, started or stopped
  kVeskStatusMovieNotOpened = 8,    ///< the movie's creator refused to open
  kVeskStatusAlreadyRecording = 9,  ///< a recording is under way; it goes on undisturbed
  kVeskStatusNotRecording = 10,     ///< there is no recording that could go on in another movie
};

}  // namespace vesk
