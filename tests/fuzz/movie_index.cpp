#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "capture/files/movie_index.h"

/// Any bytes as a movie: its atoms are walked within bounds, and a track that the file does not have is not in its
/// index.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const int file = memfd_create("movie", MFD_CLOEXEC);
  if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) abort();
  vesk::Error error;
  const auto blocks = vesk::capture::FileBlocks::open("/proc/self/fd/" + std::to_string(file), error);
  close(file);
  if (!blocks) abort();
  for (const int track : {1, 2}) vesk::capture::isWholeInIndex(*blocks, track);
  return 0;
}
