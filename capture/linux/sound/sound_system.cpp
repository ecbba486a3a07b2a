#include "capture/linux/sound/sound_system.h"

namespace vesk::capture {

std::shared_ptr<SoundSystem> makeSoundSystem(std::string& error) {
  std::string noServer;
  if (auto system = makePulseSoundSystem(noServer)) return system;
  std::string noDrivers;
  auto system = makeAlsaSoundSystem({}, noDrivers);
  if (!noDrivers.empty()) {
    error = "no microphones: " + noServer + ", and " + noDrivers + "; plug one in, or start the sound server";
  }
  return system;
}

}  // namespace vesk::capture
