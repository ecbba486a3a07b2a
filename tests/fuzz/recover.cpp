#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/writing/movie_recovery_in.h"
#include "tests/support/memory_file_system.h"

/// Any bytes are recovered or left as they are, and what was recovered is a plain movie.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vesk;
  test::MemoryFileSystem files;
  const std::vector<uint8_t> bytes(data, data + size);
  files.put("movie.mov", bytes);
  const RecoveryResult first = recoverMovieIn(files, "movie.mov");
  const auto after = files.bytes("movie.mov");
  if (first.outcome != RecoveryOutcome::kRecovered) {
    if (after != bytes) abort();
    return 0;
  }
  const RecoveryResult second = recoverMovieIn(files, "movie.mov");
  if (second.outcome != RecoveryOutcome::kAlreadyPlain) abort();
  if (files.bytes("movie.mov") != after) abort();
  return 0;
}
