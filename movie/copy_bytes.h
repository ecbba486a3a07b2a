#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace vesk {

/// Copies a frame or packet to `to`, past this processor's caches where it can: another one takes its checksum, and the
/// disk the rest. That memory was in the other's cache last, and a plain store fetches each line from there only to
/// write it over: with two processors free that took ten minutes of 8 Mbit/s from 0.33 to 0.56 s.
inline void copyBytes(uint8_t* to, std::span<const uint8_t> from) {
#ifdef __SSE2__
  constexpr size_t kLine = 64;
  constexpr size_t kLeast = 1024;  // smaller packets are not worth the fence below
  if (from.size() >= kLeast) {
    const size_t head = (kLine - reinterpret_cast<uintptr_t>(to) % kLine) % kLine;
    std::memcpy(to, from.data(), head);
    to += head;
    from = from.subspan(head);
    for (; from.size() >= kLine; from = from.subspan(kLine), to += kLine) {
      const auto* source = reinterpret_cast<const __m128i*>(from.data());
      auto* line = reinterpret_cast<__m128i*>(to);
      const __m128i first = _mm_loadu_si128(source);
      const __m128i second = _mm_loadu_si128(source + 1);
      const __m128i third = _mm_loadu_si128(source + 2);
      const __m128i fourth = _mm_loadu_si128(source + 3);
      _mm_stream_si128(line, first);
      _mm_stream_si128(line + 1, second);
      _mm_stream_si128(line + 2, third);
      _mm_stream_si128(line + 3, fourth);
    }
    _mm_sfence();  // such stores are ordered by nothing else, not by the lock that hands the sample on
  }
#endif
  if (!from.empty()) std::memcpy(to, from.data(), from.size());
}

}  // namespace vesk
