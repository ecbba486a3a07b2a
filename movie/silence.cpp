#include "movie/silence.h"

#include <vesk/log.h>

namespace vesk {

void reportOpenGap(uint64_t gap) {
  printToError(LogLevel::kWarning,
               "[WARNING]: Gap of %llu seconds in the sound is too long for silence, leaving it open\n",
               static_cast<unsigned long long>(gap / 1'000'000));
}

}  // namespace vesk
