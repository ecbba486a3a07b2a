#include <vesk/unistr.h>

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace vesk {
namespace {

constexpr char16_t kUntouched = 0x5A5A;

std::array<char16_t, 8> untouched() {
  std::array<char16_t, 8> units;
  units.fill(kUntouched);
  return units;
}

TEST(Unistr, CopiesWhatFitsAndAnswersTheTerminator) {
  struct Row {
    uint32_t capacity;
    const char16_t* copied;
  };
  for (const Row& row : {Row{1, u""}, Row{2, u"a"}, Row{3, u"ab"}, Row{4, u"abc"}, Row{8, u"abc"}}) {
    auto units = untouched();
    char16_t* const end = unistr_copy(units.data(), u"abc", row.capacity);
    EXPECT_EQ(std::u16string(units.data()), row.copied) << row.capacity;
    ASSERT_EQ(end, units.data() + std::u16string_view(row.copied).size()) << row.capacity;
    EXPECT_EQ(end[1], kUntouched) << row.capacity;
  }
}

TEST(Unistr, WritesNothingIntoNoRoom) {
  auto units = untouched();
  EXPECT_EQ(unistr_copy(units.data(), u"abc", 0), nullptr);
  char byte = 'x';
  unistr_toUTF8(u"abc", &byte, 0);
  EXPECT_EQ(units, untouched());
  EXPECT_EQ(byte, 'x');
}

TEST(Unistr, ComparesWholeStrings) {
  EXPECT_TRUE(unistr_equal(u"", u""));
  EXPECT_TRUE(unistr_equal(u"camera", u"camera"));
  EXPECT_FALSE(unistr_equal(u"camera", u"camera 2"));
  EXPECT_FALSE(unistr_equal(u"camera 2", u"camera"));
  EXPECT_FALSE(unistr_equal(u"camera", u"Camera"));
}

TEST(UnistrDeathTest, NamesTheFailedAssertionAndStops) {
  const char* const message =
      "\\(str1 != NULL && str2 != NULL\\), function unistr_equal, file Source/Utilities/unistr, line 41";
  EXPECT_DEATH(unistr_equal(nullptr, u""), message);
  EXPECT_DEATH(unistr_equal(u"", nullptr), message);
}

TEST(Unistr, KeepsEveryUnitOfACoreFoundationString) {
  const std::u16string lone{u'a', 0xD800, u'b', 0xDC00};
  auto units = untouched();
  unistr_copyFromCFString(units.data(), lone);
  EXPECT_EQ(unistr_length(units.data()), 4U);
  EXPECT_EQ(units[5], kUntouched);
  EXPECT_EQ(unistr_createCFString(units.data()), lone);

  unistr_copyFromCFString(units.data(), u"");
  EXPECT_EQ(unistr_length(units.data()), 0U);
  EXPECT_EQ(units[1], 0xD800) << "one unit is all that an empty string takes";
}

TEST(Unistr, ConvertsToUTF8AndBack) {
  const char16_t* const name = u"Kamera é 相機 \U0001F3A5";
  char bytes[64];
  unistr_toUTF8(name, bytes, sizeof(bytes));
  EXPECT_STREQ(bytes, "Kamera \xC3\xA9 \xE7\x9B\xB8\xE6\xA9\x9F \xF0\x9F\x8E\xA5");
  char16_t units[64];
  unistr_fromUTF8(bytes, units);
  EXPECT_TRUE(unistr_equal(units, name));

  const std::u16string lone{u'a', 0xD83C, u'b', 0xDFA5};
  EXPECT_EQ(unistr_createUTF8(lone),
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD");
}

TEST(Unistr, LeavesAnEmptyStringWhereUTF8DoesNotFit) {
  struct Row {
    uint32_t capacity;
    const char* left;
  };
  for (const Row& row : {Row{1, ""}, Row{3, ""}, Row{4, "a\xC3\xA9"}}) {
    std::string bytes(8, 'x');
    unistr_toUTF8(u"aé", bytes.data(), row.capacity);
    EXPECT_STREQ(bytes.data(), row.left) << row.capacity;
    EXPECT_EQ(bytes.substr(row.capacity), std::string(8 - row.capacity, 'x')) << row.capacity;
  }
}

TEST(Unistr, LeavesAnEmptyStringForBytesThatAreNotUTF8) {
  for (const char* text : {"a\xFF", "\xC3", "\xED\xA0\x80", "\xC0\xAF", "ab\xE7\x9B"}) {
    auto units = untouched();
    unistr_fromUTF8(text, units.data());
    EXPECT_EQ(units[0], 0) << text;
    EXPECT_EQ(unistr_createFromUTF8(text), std::nullopt) << text;
  }
}

TEST(Unistr, BoundsViewsAndRefusesTextThatWouldEndEarly) {
  EXPECT_EQ(unistr_createFromUTF8(std::string_view("a\0b", 3)), std::nullopt);
  EXPECT_EQ(unistr_createFromUTF8(""), u"");
  EXPECT_EQ(unistr_createFromUTF8("1234567"), u"1234567");
  EXPECT_EQ(unistr_view(untouched()).size(), 8U) << "a field without terminator";
}

}  // namespace
}  // namespace vesk
