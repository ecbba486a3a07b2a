#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "platform/foundation/byte_reader.h"
#include "platform/writing/movie_fragment.h"
#include "platform/writing/movie_recovery_in.h"
#include "tests/support/memory_file_system.h"

namespace vesk {
namespace {

void recover(const std::vector<uint8_t>& bytes) {
  test::MemoryFileSystem files;
  files.put("movie.mov", bytes);
  const RecoveryResult first = recoverMovieIn(files, "movie.mov");
  const auto after = files.bytes("movie.mov");
  if (first.outcome != RecoveryOutcome::kRecovered) {
    if (after != bytes) abort();
    return;
  }
  const RecoveryResult second = recoverMovieIn(files, "movie.mov");
  if (second.outcome != RecoveryOutcome::kAlreadyPlain) abort();
  if (files.bytes("movie.mov") != after) abort();
}

/// Makes the checksums of fragments' headers right, which no chance does, so that what lies behind is reached too.
/// @return whether there were any
bool correctSums(std::vector<uint8_t>& bytes) {
  constexpr size_t kHeader = 8;
  constexpr size_t kSumOffset = 12;
  bool found = false;
  std::span<const uint8_t> before;  // the body of the atom before
  for (size_t at = 0; bytes.size() - at >= kSumOffset + sizeof(uint64_t);) {
    const size_t size = readBigEndian32(bytes.data() + at);
    if (size < kHeader || size > bytes.size() - at) break;
    if (readBigEndian32(bytes.data() + at + kHeader) == FragmentSumsAtom::kMark &&
        size >= kSumOffset + sizeof(uint64_t)) {
      const uint64_t sum = checksum(before);
      writeBigEndian32(bytes.data() + at + kSumOffset, static_cast<uint32_t>(sum >> 32));
      writeBigEndian32(bytes.data() + at + kSumOffset + 4, static_cast<uint32_t>(sum));
      found = true;
    }
    before = {bytes.data() + at + kHeader, size - kHeader};
    at += size;
  }
  return found;
}

}  // namespace
}  // namespace vesk

/// Any bytes are recovered or left as they are, and what was recovered is a plain movie.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> bytes(data, data + size);
  vesk::recover(bytes);
  if (vesk::correctSums(bytes)) vesk::recover(bytes);
  return 0;
}
