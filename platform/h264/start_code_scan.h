#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vesk::h264 {

/// Finding the four-byte start codes 00 00 00 01 of an H.264 byte stream at the speed of memory.
///
/// Wherever three zero bytes lie, two of them fill an aligned pair. So a block without an aligned
/// zero pair holds no start code but for one that begins at its last byte, which shows up as a pair
/// at the start of the next block. Blocks are told apart a hundred bytes at a time; only those with
/// a pair are looked at closely. Figures: bench/README.md.
///
/// A block type has
/// - kSize, kStep, kAlignment: bytes of a block, of a closer look, and the alignment of both;
/// - mayHold(block): false only when no aligned pair of the block is zero;
/// - look(at, found): calls found(p) for each start code at p in [at - 1, at + kStep - 1), in order;
///   reads [at - 1, at + kStep + 2).
namespace start_codes {

inline bool isStartCode(const uint8_t* at) {
  static constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
  return std::memcmp(at, kStartCode, 4) == 0;
}

/// Blocks for any machine, in the compiler's own vectors: they become whatever the machine has.
struct PortableBlock {
  static constexpr size_t kSize = 64;
  static constexpr size_t kStep = 8;
  static constexpr size_t kAlignment = 8;

  static bool mayHold(const uint8_t* block) {
    Flags zeros{};
    for (size_t offset = 0; offset < kSize; offset += sizeof(Pairs)) {
      Pairs pairs;
      std::memcpy(&pairs, block + offset, sizeof pairs);
      zeros |= pairs == Pairs{};
    }
    uint64_t halves[2];
    std::memcpy(halves, &zeros, sizeof halves);
    return (halves[0] | halves[1]) != 0;
  }

  template <class Found>
  static void look(const uint8_t* at, Found&& found) {
    if (!hasZeroPair(at)) return;
    for (size_t offset = 0; offset < kStep; offset += 2) {
      if (at[offset] != 0 || at[offset + 1] != 0) continue;
      if (isStartCode(at + offset - 1)) found(at + offset - 1);
      if (isStartCode(at + offset)) found(at + offset);
    }
  }

 private:
  using Pairs __attribute__((vector_size(16))) = uint16_t;
  using Flags __attribute__((vector_size(16))) = int16_t;  // of a comparison of pairs

  /// Whether one of the four pairs of a word is zero: only a zero pair borrows from its own top bit.
  static bool hasZeroPair(const uint8_t* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return ((word - 0x0001000100010001) & ~word & 0x8000800080008000) != 0;
  }
};

#if defined(__SSE2__)
/// Blocks for x86, where SSE2 is always there.
struct SSE2Block {
  static constexpr size_t kSize = 128;
  static constexpr size_t kStep = 16;
  static constexpr size_t kAlignment = 16;

  /// The smaller byte of eight vectors is zero wherever one of them is: a zero pair stays one. Bytes
  /// of different vectors can look like a pair together, in about 1 of 130 blocks of random bytes;
  /// that costs a closer look and saves a third of the instructions.
  static bool mayHold(const uint8_t* block) {
    const auto* vectors = reinterpret_cast<const __m128i*>(block);
    const __m128i a = _mm_min_epu8(_mm_load_si128(vectors), _mm_load_si128(vectors + 1));
    const __m128i b = _mm_min_epu8(_mm_load_si128(vectors + 2), _mm_load_si128(vectors + 3));
    const __m128i c = _mm_min_epu8(_mm_load_si128(vectors + 4), _mm_load_si128(vectors + 5));
    const __m128i d = _mm_min_epu8(_mm_load_si128(vectors + 6), _mm_load_si128(vectors + 7));
    return hasZeroPair(_mm_min_epu8(_mm_min_epu8(a, b), _mm_min_epu8(c, d)));
  }

  template <class Found>
  static void look(const uint8_t* at, Found&& found) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i second = _mm_load_si128(reinterpret_cast<const __m128i*>(at));
    if (!hasZeroPair(second)) return;
    const __m128i zeros =
        _mm_and_si128(_mm_cmpeq_epi8(load(at - 1), zero),
                      _mm_and_si128(_mm_cmpeq_epi8(second, zero), _mm_cmpeq_epi8(load(at + 1), zero)));
    const __m128i codes = _mm_and_si128(zeros, _mm_cmpeq_epi8(load(at + 2), _mm_set1_epi8(1)));
    for (auto mask = static_cast<uint32_t>(_mm_movemask_epi8(codes)); mask != 0; mask &= mask - 1)
      found(at - 1 + static_cast<unsigned>(std::countr_zero(mask)));
  }

 private:
  static __m128i load(const uint8_t* at) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at)); }
  static bool hasZeroPair(__m128i vector) {
    return _mm_movemask_epi8(_mm_cmpeq_epi16(vector, _mm_setzero_si128())) != 0;
  }
};
using FastestBlock = SSE2Block;
#else
using FastestBlock = PortableBlock;
#endif

/// Calls found(p) for every start code in [begin, end), from first to last. `found` may write to the
/// bytes before p + 4.
template <class Block, class Found>
void forEachStartCode(const uint8_t* begin, const uint8_t* end, Found&& found) {
  if (end - begin < 4) return;
  const uint8_t* const last = end - 4;  // where the last start code can be
  const auto each = [&](const uint8_t* at, const uint8_t* stop) {
    for (; at <= last && at < stop; ++at)
      if (isStartCode(at)) found(at);
  };
  const size_t misaligned = reinterpret_cast<uintptr_t>(begin) % Block::kAlignment;
  const size_t head = Block::kAlignment - misaligned;  // never 0: look() reads the byte before its place
  if (head + Block::kStep + 2 > static_cast<size_t>(end - begin)) return each(begin, end);

  const uint8_t* block = begin + head;
  each(begin, block - 1);
  for (; static_cast<size_t>(end - block) >= Block::kSize + 2; block += Block::kSize) {
    if (!Block::mayHold(block)) [[likely]]
      continue;
    for (size_t offset = 0; offset < Block::kSize; offset += Block::kStep) Block::look(block + offset, found);
  }
  for (; static_cast<size_t>(end - block) >= Block::kStep + 2; block += Block::kStep) Block::look(block, found);
  each(block - 1, end);
}

}  // namespace start_codes
}  // namespace vesk::h264
