#include "platform/decompression/image_description.h"

#include <gtest/gtest.h>

#include "platform/decompression/codec_info.h"
#include "platform/foundation/byte_reader.h"
#include "tests/unit/decompression/session_under_test.h"

namespace vesk {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr Bytes::value_type kColours[] = {'n', 'c', 'l', 'c', 0, 6, 0, 1, 0, 6};

Bytes tailOf(const ImageDescription& description) {
  const auto bytes = description.bytes();
  return {bytes.begin() + ImageDescription::kSize, bytes.end()};
}

TEST(ImageDescriptionRecord, ExtensionsAreAtomsThatTheSizeCounts) {
  ImageDescription description;
  EXPECT_EQ(AddImageDescriptionExtension(description, {1, 2, 3}, fourCharCode("abcd")), noErr);
  EXPECT_EQ(AddImageDescriptionExtension(description, {}, fourCharCode("efgh")), noErr);
  EXPECT_EQ(tailOf(description), (Bytes{0, 0, 0, 11, 'a', 'b', 'c', 'd', 1, 2, 3, 0, 0, 0, 8, 'e', 'f', 'g', 'h'}));
  EXPECT_EQ(description.get(ImageDescription::kIDSize), 86U + 19U);
  ASSERT_TRUE(description.extension(fourCharCode("efgh")));
  EXPECT_EQ(description.extension(fourCharCode("abcd"))->size(), 3U);
  EXPECT_FALSE(description.extension(fourCharCode("colr")));
}

TEST(ImageDescriptionRecord, ColoursCanBeSetReadAndReplaced) {
  ImageDescription description;
  const auto get = [&description](std::span<uint8_t> value) {
    return ICMImageDescriptionGetProperty(description, kQTPropertyClass_ImageDescription,
                                          kICMImageDescriptionPropertyID_NCLCColorInfo, value);
  };
  const auto set = [&description](std::span<const uint8_t> value) {
    return ICMImageDescriptionSetProperty(description, kQTPropertyClass_ImageDescription,
                                          kICMImageDescriptionPropertyID_NCLCColorInfo, value);
  };
  Bytes value(kNCLCColorInfoSize);
  EXPECT_EQ(get(value), kICMPropertyNotFoundErr);
  EXPECT_EQ(set(std::span(kColours).first(9)), paramErr);
  const Bytes others = {'n', 'c', 'l', 'c', 0, 1, 0, 1, 0, 1};
  EXPECT_EQ(set(others), noErr);
  EXPECT_EQ(AddImageDescriptionExtension(description, {7}, fourCharCode("last")), noErr);
  EXPECT_EQ(set(kColours), noErr);
  EXPECT_EQ(get(value), noErr);
  EXPECT_EQ(value, Bytes(std::begin(kColours), std::end(kColours)));
  EXPECT_EQ(tailOf(description), (Bytes{0,   0,   0,   9,   'l', 'a', 's', 't', 7, 0, 0, 0, 18, 'c',
                                        'o', 'l', 'r', 'n', 'c', 'l', 'c', 0,   6, 0, 1, 0, 6}));
  EXPECT_EQ(description.get(ImageDescription::kIDSize), 86U + 9U + 18U);
  EXPECT_EQ(get(std::span(value).first(9)), paramErr);
}

TEST(CodecInfoTest, KnowsWhatCanBeDecoded) {
  CodecInfo info;
  for (const char* const code : {"avc1", "dmb1", "2vuy", "jpeg", "mp4v", "yuvs", "MJPG"}) {
    EXPECT_EQ(GetCodecInfo(&info, readBigEndian32(reinterpret_cast<const uint8_t*>(code))), noErr) << code;
    EXPECT_GT(info.typeName[0], 0) << code;
    EXPECT_LT(info.typeName[0], info.typeName.size()) << code;
  }
  EXPECT_EQ(GetCodecInfo(&info, fourCharCode("zzzz")), noCodecErr);
  EXPECT_EQ(info.typeName[0], 0);
  EXPECT_EQ(info.vendor, 0U);
}

}  // namespace
}  // namespace vesk
