#include <vesk/property_list.h>

#include <glib.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <pthread.h>
#include <sys/stat.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

using test::TemporaryFolder;

std::optional<PropertyList::Dictionary> parse(const std::string& text) {
  return PropertyList::dictionaryWithData({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

std::string xml(const std::string& body) {
  return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)" + body + "</plist>";
}

/// The same list in the binary form.
std::string binary(const std::string& text) {
  plist_t root = nullptr;
  plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &root);
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  std::string result(bytes, length);
  std::free(bytes);
  plist_free(root);
  return result;
}

/// A binary list of objects given byte by byte; the first is the top.
std::string binaryOf(const std::vector<std::string>& objects, char referenceWidth = 1) {
  std::string list = "bplist00";
  std::string offsets;
  for (const auto& object : objects) {
    offsets += static_cast<char>(list.size() >> 16);
    offsets += static_cast<char>(list.size() >> 8);
    offsets += static_cast<char>(list.size());
    list += object;
  }
  const size_t table = list.size();
  list += offsets + std::string(6, '\0') + "\x03" + referenceWidth;
  for (const uint64_t number : {uint64_t{objects.size()}, uint64_t{0}, uint64_t{table}})
    for (int shift = 56; shift >= 0; shift -= 8) list += static_cast<char>(number >> shift);
  return list;
}

const std::string kAllKinds =
    xml("<dict><key>text</key><string>Grüße &amp; more</string><key>yes</key><true/><key>no</key><false/>"
        "<key>number</key><integer>-42</integer><key>real</key><real>1.5</real>"
        "<key>data</key><data>AAH/</data><key>date</key><date>2001-01-02T00:00:00Z</date>"
        "<key>list</key><array><integer>1</integer><dict/></array></dict>");

class PropertyListForms : public ::testing::TestWithParam<std::string (*)(const std::string&)> {};

TEST_P(PropertyListForms, HoldsEveryKindOfValue) {
  const auto list = parse(GetParam()(kAllKinds));
  ASSERT_TRUE(list);
  EXPECT_EQ(*list->at("text").as<std::string>(), "Grüße & more");
  EXPECT_EQ(*list->at("yes").as<bool>(), true);
  EXPECT_EQ(*list->at("no").as<bool>(), false);
  EXPECT_EQ(*list->at("number").as<int64_t>(), -42);
  EXPECT_EQ(*list->at("real").as<double>(), 1.5);
  EXPECT_EQ(*list->at("data").as<PropertyList::Data>(), (PropertyList::Data{0, 1, 255}));
  EXPECT_EQ(list->at("date").as<PropertyList::Date>()->time_since_epoch(), std::chrono::seconds(978307200 + 86400));
  ASSERT_EQ(list->at("list").as<PropertyList::Array>()->size(), 2U);
  EXPECT_TRUE(list->at("list").as<PropertyList::Array>()->at(1).as<PropertyList::Dictionary>()->empty());
  EXPECT_FALSE(list->at("text").as<int64_t>());
}

INSTANTIATE_TEST_SUITE_P(Forms, PropertyListForms,
                         ::testing::Values(
                             +[](const std::string& text) { return text; }, &binary));

TEST(PropertyList, AnswersNothingForDamage) {
  const std::string good = binary(kAllKinds);
  ASSERT_TRUE(parse(good));
  const struct {
    const char* label;
    std::string bytes;
  } rows[] = {
      {"empty", ""},
      {"no list", "hello"},
      {"top is an array", xml("<array/>")},
      {"top is a text", xml("<string>a</string>")},
      {"no value for a key", xml("<dict><key>a</key></dict")},
      {"cut in a tag", kAllKinds.substr(0, kAllKinds.size() / 2)},
      {"header only", "bplist00"},
      {"bad UTF-8", xml("<dict><key>a</key><string>\xff\xfe</string></dict>")},
      {"refers to itself", binaryOf({std::string("\xd1\x01\x00", 3), "Qa"})},
      {"zero in a key", binaryOf({"\xd1\x01\x01", std::string("\x52"
                                                              "a\0",
                                                              3)})},
      {"key that is no text", binaryOf({"\xd1\x01\x01", "\x09"})},
      {"refers beyond its objects", binaryOf({"\xd1\x01\x09", "Qa"})},
      {"count beyond its bytes", binaryOf({"\xdf\x13\x7f\xff\xff\xff\xff\xff\xff\xff"})},
  };
  for (const auto& row : rows) EXPECT_FALSE(parse(row.bytes)) << row.label;
  for (size_t length = 0; length < good.size(); ++length) EXPECT_FALSE(parse(good.substr(0, length))) << length;
}

/// The text in another encoding, as the C library writes it.
std::string inEncoding(const std::string& text, const char* encoding) {
  gsize length = 0;
  gchar* const bytes =
      g_convert(text.data(), static_cast<gssize>(text.size()), encoding, "UTF-8", nullptr, &length, nullptr);
  std::string result(bytes, length);
  g_free(bytes);
  return result;
}

TEST(PropertyList, ReadsXmlInTheEncodingsThatEditorsWrite) {
  const std::string body = "<plist version='1.0'><dict><key>2048</key><string>Büro</string></dict></plist>";
  const auto declared = [&](const char* encoding) {
    return std::string("<?xml version='1.0' encoding='") + encoding + "'?>\n" + body;
  };
  const struct {
    const char* label;
    std::string bytes;
  } rows[] = {
      {"nothing declared", body},
      {"byte order mark", "\xEF\xBB\xBF" + declared("UTF-8")},
      {"byte order mark alone", "\xEF\xBB\xBF" + body},
      {"UTF-16, little end first", "\xFF\xFE" + inEncoding(declared("UTF-16"), "UTF-16LE")},
      {"UTF-16, big end first", "\xFE\xFF" + inEncoding(declared("UTF-16"), "UTF-16BE")},
      {"UTF-16 misspelled", "\xFF\xFE" + inEncoding(declared("utf16"), "UTF-16LE")},
      {"Latin-1", inEncoding(declared("ISO-8859-1"), "ISO-8859-1")},
      {"Latin-1 misspelled", inEncoding(declared("latin1"), "ISO-8859-1")},
      {"of another system", inEncoding(declared("windows-1252"), "CP1252")},
      {"with a document type",
       "<?xml version='1.0'?><!DOCTYPE plist PUBLIC '-//Names//DTD PLIST 1.0//EN' "
       "'http://localhost/PropertyList-1.0.dtd'>" +
           body},
  };
  for (const auto& row : rows) {
    const auto list = parse(row.bytes);
    ASSERT_TRUE(list) << row.label;
    EXPECT_EQ(*list->at("2048").as<std::string>(), "Büro") << row.label;
  }
}

TEST(PropertyList, ReadsTheWaysInWhichNumbersAndDatesAreWritten) {
  const auto number = [](const std::string& element) -> std::optional<int64_t> {
    const auto list = parse(xml("<dict><key>a</key>" + element + "</dict>"));
    return list ? std::optional(*list->at("a").as<int64_t>()) : std::nullopt;
  };
  EXPECT_EQ(number("<integer> +12 </integer>"), 12);
  EXPECT_EQ(number("<integer>0x1F</integer>"), 31);
  EXPECT_EQ(number("<integer>-9223372036854775808</integer>"), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(number("<integer>18446744073709551615</integer>"), -1);
  for (const char* wrong :
       {"<integer/>", "<integer>1x</integer>", "<integer>99999999999999999999</integer>", "<real>one</real>",
        "<date>2001-13-01T00:00:00Z</date>", "<date>9999-01-01T00:00:00Z</date>", "<date>yesterday</date>", "<set/>",
        "<string>a<b/></string>", "<key>b</key>", "<array><key>b</key></array>"})
    EXPECT_FALSE(parse(xml(std::string("<dict><key>a</key>") + wrong + "</dict>"))) << wrong;
  EXPECT_FALSE(parse(xml("<dict/><dict/>"))) << "two values";
  Error why;
  const std::string cut = "<plist><dict><key>a</key>";
  EXPECT_FALSE(PropertyList::dictionaryWithData({reinterpret_cast<const uint8_t*>(cut.data()), cut.size()}, &why));
  EXPECT_EQ(why.cause, Cause::kUnreadable);
  EXPECT_NE(why.what.find("line 1"), std::string::npos) << why.what;
}

TEST(PropertyList, SurvivesFlippedBytes) {
  const std::string good = binary(kAllKinds);
  for (size_t at = 0; at < good.size(); ++at)
    for (const int flip : {0x01, 0x80, 0xff}) {
      std::string damaged = good;
      damaged[at] = static_cast<char>(damaged[at] ^ flip);
      parse(damaged);  // any answer will do; the sanitizers watch
    }
}

TEST(PropertyList, RefusesWhatWouldExhaustStackOrMemory) {
  const auto nested = [](size_t levels) {
    std::string text = "<dict><key>a</key>";
    for (size_t level = 0; level < levels; ++level) text += "<array>";
    for (size_t level = 0; level < levels; ++level) text += "</array>";
    return xml(text + "</dict>");
  };
  EXPECT_TRUE(parse(nested(50)));
  EXPECT_FALSE(parse(nested(100)));
  EXPECT_FALSE(parse(nested(19000)));
  EXPECT_FALSE(parse(nested(200000)));
  EXPECT_FALSE(parse(binary(nested(100))));

  // The depth is known before anything recurses: a thread's small stack is enough for any list.
  std::vector<std::string> chain = {std::string("\xd1\x00\x01\x00\x02", 5), "Qa"};
  for (uint16_t level = 2; level < 19000; ++level)
    chain.push_back({'\xa1', static_cast<char>((level + 1) >> 8), static_cast<char>(level + 1)});
  chain.push_back("\x09");
  const std::string lists[] = {nested(20000), "\xFF\xFE" + inEncoding(nested(20000).substr(38), "UTF-16LE"),
                               binaryOf(chain, 2)};
  struct Task {
    const std::string* list;
    bool isRead;
  };
  for (const std::string& list : lists) {
    Task task{&list, true};
    pthread_attr_t small;
    pthread_attr_init(&small);
    ASSERT_EQ(pthread_attr_setstacksize(&small, size_t{256} << 10), 0);
    pthread_t thread = 0;
    const auto body = [](void* argument) -> void* {
      auto& given = *static_cast<Task*>(argument);
      given.isRead = parse(*given.list).has_value();
      return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &small, body, &task), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&small);
    EXPECT_FALSE(task.isRead);
  }

  // Forty arrays, each holding the next one twice, stand for 2^40 values.
  std::vector<std::string> doubling = {std::string("\xd1\x01\x02", 3), "Qa"};
  for (int level = 2; level < 42; ++level)
    doubling.push_back({'\xa2', static_cast<char>(level + 1), static_cast<char>(level + 1)});
  doubling.push_back("\x09");
  EXPECT_FALSE(parse(binaryOf(doubling)));

  EXPECT_FALSE(parse(xml("<dict><key>a</key><string>" + std::string(size_t{5} << 20, 'a') + "</string></dict>")));
}

TEST(PropertyList, ReadsPlainFilesOnly) {
  const TemporaryFolder folder;
  const auto good = folder.write("DeviceNames.plist", xml("<dict><key>2048</key><string>Desk</string></dict>"));
  const auto list = PropertyList::dictionaryWithContentsOfFile(good);
  ASSERT_TRUE(list);
  EXPECT_EQ(*list->at("2048").as<std::string>(), "Desk");

  EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(folder.file("missing.plist")));
  EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(folder.path()));
  ASSERT_EQ(mkfifo(folder.file("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(folder.file("fifo")));
}

}  // namespace
}  // namespace vesk
