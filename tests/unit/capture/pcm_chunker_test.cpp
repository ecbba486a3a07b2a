#include <gtest/gtest.h>

#include "capture/files/pcm_chunker.h"
#include "tests/unit/capture/file_source_support.h"

namespace vesk::capture::test {
namespace {

struct Chunk {
  size_t bytes;
  int64_t time;
  bool operator==(const Chunk&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Chunk& chunk) {
  return out << chunk.bytes << "@" << chunk.time;
}

struct Portion {
  size_t bytes;
  std::optional<int64_t> time;
};

/// Mono at 1024000 Hz: a packet of 1024 frames, 2048 bytes, lasts a millisecond.
std::vector<Chunk> chunked(std::initializer_list<Portion> portions, int64_t from, Bytes* content = nullptr) {
  PcmChunker chunker(1024000, 1);
  chunker.restart(from);
  std::vector<Chunk> chunks;
  const auto drain = [&](bool end) {
    while (const auto unit = chunker.take(end)) {
      chunks.push_back({unit->bytes.size(), unit->time});
      if (content) content->insert(content->end(), unit->bytes.begin(), unit->bytes.end());
    }
  };
  uint8_t next = 0;
  for (const Portion& portion : portions) {
    Bytes sound(portion.bytes);
    for (uint8_t& byte : sound) byte = next++;
    chunker.give(sound, portion.time);
    drain(false);
  }
  drain(true);
  return chunks;
}

TEST(PcmChunker, MakesPacketsOf1024FramesOfAnyPortions) {
  const std::vector<Chunk> whole = {{2048, 0}, {2048, 1000}, {2048, 2000}, {1024, 3000}};
  EXPECT_EQ(chunked({{7168, 0}}, 0), whole);
  EXPECT_EQ(chunked({{1000, 0}, {5144, 488}, {1024, 3000}}, 0), whole);
  Bytes content;
  EXPECT_EQ(chunked({{3001, 0}, {1, std::nullopt}, {4166, std::nullopt}}, 0, &content), whole) << "odd bytes";
  for (size_t at = 0; at < content.size(); ++at) ASSERT_EQ(content[at], static_cast<uint8_t>(at));
}

TEST(PcmChunker, FollowsJumpsAndIgnoresRounding) {
  EXPECT_EQ(chunked({{3072, 5000}, {2048, 6507}}, 0), (std::vector<Chunk>{{2048, 5000}, {2048, 6000}, {1024, 7000}}));
  EXPECT_EQ(chunked({{3072, 0}, {2048, 50000}}, 0), (std::vector<Chunk>{{2048, 0}, {1024, 1000}, {2048, 50000}}));
}

TEST(PcmChunker, BeginsAtTheFrameAskedFor) {
  EXPECT_EQ(chunked({{2048, 0}, {4096, 1000}}, 1500), (std::vector<Chunk>{{2048, 1500}, {1024, 2500}}));
  EXPECT_EQ(chunked({{4096, -1000}}, 0), (std::vector<Chunk>{{2048, 0}}));
}

}  // namespace
}  // namespace vesk::capture::test
