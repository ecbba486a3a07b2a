#include "capture/linux/sound/sound_system.h"

namespace vesk::capture {

std::shared_ptr<SoundSystem> makeSoundSystem(Error& error) {
  Error noServer;
  if (auto system = makePulseSoundSystem(noServer)) return system;
  Error noDrivers;
  auto system = makeAlsaSoundSystem({}, noDrivers);
  if (noDrivers)
    error = {Cause::kNoSoundServer, "there are no microphones: " + noServer.what + ", and " + noDrivers.what,
             "Plug one in, or start the sound server."};
  return system;
}

}  // namespace vesk::capture
