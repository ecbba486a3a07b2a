#include "platform/h264/access_unit_writer.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"

namespace vesk::h264 {
namespace {

using test::Bytes;
using test::bytes;

// A sequence parameter set numbered 0; picture parameter sets 0 and 1 that use it; IDR slices that
// use each of them (first macroblock 0, slice type 2, then the set's number).
const char* const kSequence = "67 42 00 1E 80 11";
const char* const kPicture0 = "68 C0 22";
const char* const kPicture1 = "68 50 33";
const char* const kIDR0 = "65 B8 44";  // 1 | 011 | 1 ...
const char* const kIDR1 = "65 B4 55";  // 1 | 011 | 010 ...
const char* const kSlice = "41 9A 66";
const char* const kDelimiter = "09 F0";

std::string coded(std::initializer_list<const char*> nals) {
  std::string text;
  for (const char* nal : nals) text += (text.empty() ? "00 00 00 01 " : " 00 00 00 01 ") + std::string(nal);
  return text;
}

Bytes written(AccessUnitWriter& writer, Bytes packet) {
  const auto unit = writer.write(packet);
  return unit ? Bytes(unit->bytes.begin(), unit->bytes.end()) : Bytes{};
}

Bytes record(int lengthSize) {
  Bytes out = bytes("01 42 00 1E FC E1 00 06 67 42 00 1E 80 11 02 00 03 68 C0 22 00 03 68 50 33");
  out[4] = static_cast<uint8_t>(0xFC | (lengthSize - 1));
  return out;
}

TEST(AccessUnitWriter, WritesFourByteStartCodesWhateverStoodThere) {
  const struct {
    const char* label;
    Bytes header;
    const char* packet;
  } rows[] = {
      {"four-byte lengths", record(4), "00 00 00 02 09 F0 00 00 00 03 41 9A 66"},
      {"two-byte lengths", record(2), "00 02 09 F0 00 03 41 9A 66"},
      {"one-byte lengths", record(1), "02 09 F0 03 41 9A 66"},
      {"an empty unit", record(4), "00 00 00 02 09 F0 00 00 00 00 00 00 00 03 41 9A 66"},
      {"zeros at a unit's end", record(4), "00 00 00 04 09 F0 00 00 00 00 00 03 41 9A 66"},
      {"three-byte codes", {}, "00 00 01 09 F0 00 00 01 41 9A 66"},
      {"mixed codes", {}, "00 00 00 01 09 F0 00 00 01 41 9A 66"},
      {"zeros before, between and after", {}, "00 00 00 00 00 01 09 F0 00 00 00 00 00 01 41 9A 66 00 00"},
      {"as it is to be", {}, "00 00 00 01 09 F0 00 00 00 01 41 9A 66"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    AccessUnitWriter writer(row.header);
    EXPECT_EQ(written(writer, bytes(row.packet)), bytes(coded({kDelimiter, kSlice})));
  }
}

TEST(AccessUnitWriter, WorksInPlaceWhereNothingMoves) {
  AccessUnitWriter lengths(record(4));
  Bytes packet = bytes("00 00 00 02 09 F0 00 00 00 03 41 9A 66");
  EXPECT_EQ(lengths.write(packet)->bytes.data(), packet.data());
  AccessUnitWriter codes({});
  Bytes stream = bytes(coded({kSequence, kPicture0, kIDR0}));
  EXPECT_EQ(codes.write(stream)->bytes.data(), stream.data());
}

TEST(AccessUnitWriter, PutsMissingParameterSetsBeforeKeyPicturesThoseInUseFirst) {
  const struct {
    const char* label;
    Bytes header;
    std::string packet;
    std::string expected;
  } rows[] = {
      {"from the record", record(4), "00 00 00 03 65 B8 44", coded({kSequence, kPicture0, kPicture1, kIDR0})},
      {"the second set in use", record(4), "00 00 00 03 65 B4 55", coded({kSequence, kPicture1, kPicture0, kIDR1})},
      {"behind the delimiter", record(4), "00 00 00 02 09 F0 00 00 00 03 65 B8 44",
       coded({kDelimiter, kSequence, kPicture0, kPicture1, kIDR0})},
      {"from a header with start codes", bytes(coded({kSequence, kPicture0})), coded({kIDR0}),
       coded({kSequence, kPicture0, kIDR0})},
      {"only one of them missing", bytes(coded({kSequence, kPicture0})), coded({kPicture0, kIDR0}),
       coded({kSequence, kPicture0, kIDR0})},
      {"none missing", bytes(coded({kSequence, kPicture0, kPicture1})), coded({kSequence, kPicture0, kIDR0}),
       coded({kSequence, kPicture0, kIDR0})},
      {"not before other pictures", record(4), "00 00 00 03 41 9A 66", coded({kSlice})},
      {"none known", {}, coded({kIDR0}), coded({kIDR0})},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    AccessUnitWriter writer(row.header);
    EXPECT_EQ(written(writer, bytes(row.packet)), bytes(row.expected));
  }
}

TEST(AccessUnitWriter, KeepsTheSetsThatTheStreamBroughtLast) {
  AccessUnitWriter writer(record(4));
  written(writer, bytes("00 00 00 03 68 C0 77"));  // picture set 0, changed
  EXPECT_EQ(written(writer, bytes("00 00 00 03 65 B8 44")), bytes(coded({kSequence, "68 C0 77", kPicture1, kIDR0})));
}

TEST(AccessUnitWriter, RefusesBrokenUnits) {
  const struct {
    const char* label;
    Bytes header;
    const char* packet;
  } rows[] = {
      {"a length past the end", record(4), "00 00 00 09 41 9A 66"},
      {"a length cut off", record(4), "00 00 00 03 41 9A 66 00 00"},
      {"a huge length", record(4), "FF FF FF FF 41 9A 66"},
      {"no start code", {}, "41 9A 66 41 9A 66"},
      {"nothing but zeros", {}, "00 00 00 00 00 00"},
      {"a start code alone", {}, "00 00 00 01"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    AccessUnitWriter writer(row.header);
    Bytes packet = bytes(row.packet);
    EXPECT_FALSE(writer.write(packet));
  }
}

TEST(AccessUnitWriter, TakesUpTheNextHeaderOfAMovie) {
  AccessUnitWriter writer(bytes("01 42 00 1E FF E1 00 06 67 42 00 1E 80 11 01 00 03 68 C0 22"));
  Bytes picture = bytes("00 00 00 03 65 B8 44");
  ASSERT_TRUE(writer.write(picture));
  picture = bytes("00 00 00 03 65 B8 44");
  writer.learn(bytes("01 42 00 1E FF E1 00 06 67 42 00 1E 80 11 01 00 03 68 C0 22"));
  ASSERT_TRUE(writer.write(picture));
  EXPECT_TRUE(writer.keepsToItsSets()) << "the same once more";
  writer.learn(bytes("01 42 00 1E FF E1 00 06 67 42 00 1F 80 11 01 00 03 68 C0 22"));
  picture = bytes("00 00 00 03 65 B8 44");
  const auto unit = writer.write(picture);
  ASSERT_TRUE(unit);
  EXPECT_EQ(Bytes(unit->bytes.begin(), unit->bytes.end()),
            bytes("00 00 00 01 67 42 00 1F 80 11 00 00 00 01 68 C0 22 00 00 00 01 65 B8 44"));
  EXPECT_FALSE(writer.keepsToItsSets());
}

}  // namespace
}  // namespace vesk::h264
