#include <vesk/xml_reader.h>

#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include <vesk/bundle.h>
#include "catalogue/xml_tree_builder.h"
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

/// A tree as one line: {name: …}, [… , …], texts as they are, #1 for numbers, true and false.
std::string told(const XMLNode& node);

std::string told(const XMLDictionary& dictionary) {
  std::string text;
  for (const auto& [name, node] : dictionary.entries()) text += (text.empty() ? "" : ", ") + name + ": " + told(node);
  return "{" + text + "}";
}

std::string told(const XMLNode& node) {
  if (const auto dictionary = node.dictionary()) return told(*dictionary);
  if (const auto list = node.list()) {
    std::string text;
    for (const XMLNode& entry : *list) text += (text.empty() ? "" : ", ") + told(entry);
    return "[" + text + "]";
  }
  if (node.number()) return "#" + std::to_string(*node.number());
  if (node.boolean()) return *node.boolean() ? "true" : "false";
  return *node.text();
}

std::string read(std::string_view document) {
  NSError error;
  const auto root = SMXMLReader::dictionaryForXMLString(document, &error);
  EXPECT_EQ(root == nullptr, static_cast<bool>(error)) << document;
  return root ? told(*root) : "none";
}

struct Row {
  const char* document;
  const char* tree;
};

TEST(XmlReader, MakesTreesOfDocuments) {
  const Row rows[] = {
      {R"(<Resolutions><Camera PID="1A2B"><Resolution><SelectedWidth>640</SelectedWidth><Interpolated>0</Interpolated>)"
       "</Resolution></Camera></Resolutions>",
       "{Resolutions: {Camera: {PID: #6699, Resolution: {SelectedWidth: #640, Interpolated: false}}}}"},
      // Siblings become a list; what stands alone does not.
      {"<r><a x='1'/><a y='2'/></r>", "{r: {a: [{x: 1}, {y: 2}]}}"},
      {"<r><a x='1'/></r>", "{r: {a: {x: 1}}}"},
      {"<r><FrameRate>30</FrameRate><FrameRate>30</FrameRate></r>", "{r: {FrameRate: [#30, 30]}}"},
      {"<r><a>1</a><b>2</b><a>3</a></r>", "{r: {a: [1, 3], b: 2}}"},
      {"<r a='0'><a>1</a></r>", "{r: {a: [0, 1]}}"},
      // Text beside attributes and children.
      {"<r><FrameRate FMT='F1'>30</FrameRate></r>", "{r: {FrameRate: {FMT: F1, FrameRate: #30}}}"},
      {"<r><a k='v'> x </a></r>", "{r: {a: {k: v, text: x}}}"},
      {"<a>x<b>y</b></a>", "{a: {b: xy}}"},
      {"<a><b>y</b>z</a>", "{a: {b: y, text: z}}"},
      // What is empty leaves no trace, but has been a sibling.
      {"<x><e>1</e><e/></x>", "{x: {e: [1]}}"},
      {"<x><e/><e>1</e></x>", "{x: {e: 1}}"},
      {"<r><x><e/></x><y> \n </y></r>", "{}"},
      // A run of text is one piece, however the parser cuts it; comments and the like end a piece.
      {"<a> x &amp; y\n z&#x20;</a>", "{a: x & y\n z}"},
      {"<a>x <!-- --> y</a>", "{a: xy}"},
      {"<a>x <?p q?> y <![CDATA[ <z> ]]></a>", "{a: xy<z>}"},
      {"<a>\xC2\xA0\xE3\x80\x80 k\xC3\xA4se \xE2\x80\xA8\xC2\x85</a>", "{a: k\xC3\xA4se}"},
      {"<!DOCTYPE a [<!ENTITY small 'word'>]><a>a &small;</a>", "{a: a word}"},
      {"<n:a xmlns:n='u'><n:b>1</n:b></n:a>", "{n:a: {xmlns:n: u, n:b: 1}}"},
  };
  for (const Row& row : rows) EXPECT_EQ(read(row.document), row.tree) << row.document;
}

TEST(XmlReader, TurnsTextsIntoNumbers) {
  const Row rows[] = {
      {"<Bitrate>abc</Bitrate>", "#0"},
      {"<Bitrate>-12.5</Bitrate>", "#-12"},
      {"<Bitrate>+7 kbit</Bitrate>", "#7"},
      {"<VideoName>99999999999</VideoName>", "#2147483647"},
      {"<StillName>-99999999999</StillName>", "#-2147483648"},
      {"<Name>12</Name>", "12"},
      {"<bitrate>12</bitrate>", "12"},
      {"<VideoSupported>yes</VideoSupported>", "true"},
      {"<VideoSupported>0</VideoSupported>", "false"},
      {"<StillOnly>-001</StillOnly>", "true"},
      {"<StillOnly>No</StillOnly>", "false"},
      {"<StillOnly>Truly</StillOnly>", "true"},
  };
  for (const Row& row : rows) {
    const auto root = SMXMLReader::dictionaryForXMLString(row.document, nullptr);
    ASSERT_TRUE(root) << row.document;
    EXPECT_EQ(told(root->entries().front().second), row.tree) << row.document;
  }
  const std::pair<const char*, int32_t> products[] = {{"1A2B", 0x1A2B}, {"0x2a", 42}, {"zz", 0},
                                                      {"", 0},          {" 7G", 7},   {"FFFFFFFF", -1},
                                                      {"0x", 0},        {"-1", -1},   {"123456789", -1}};
  for (const auto& [text, number] : products) {
    const auto root = SMXMLReader::dictionaryForXMLString("<c PID='" + std::string(text) + "'/>", nullptr);
    ASSERT_TRUE(root);
    EXPECT_EQ(*root->retrieveForPath("c.PID")->number(), number) << text;
  }
}

TEST(XmlReader, TrimsEachPieceOnItsOwn) {
  XMLTreeBuilder builder(nullptr);
  EXPECT_EQ(builder.build({}), nullptr);
  NSXMLParser parser = NSXMLParser::initWithData({});
  const XMLAttribute attribute{"k", "v"};
  builder.parserDidStartElement(parser, "a", "", "a", {&attribute, 1});
  builder.parserFoundCharacters(parser, "a ");
  builder.parserFoundCharacters(parser, " b");
  builder.parserDidEndElement(parser, "a", "", "a");
  builder.parserDidEndElement(parser, "too", "", "many");
  const auto again = builder.build(std::span(reinterpret_cast<const uint8_t*>("<b>1</b>"), 8));
  ASSERT_TRUE(again);
  EXPECT_EQ(told(*again), "{b: 1}");
}

TEST(XmlReader, WalksPaths) {
  const auto root = SMXMLReader::dictionaryForXMLString(
      "<R><One P='1'/><C P='7'><t>x</t></C><C P='8'/><L>a</L><L>b</L></R>", nullptr);
  ASSERT_TRUE(root);
  const Row rows[] = {{"R.One.P", "1"},     {"R.C.0.P", "7"},   {"R.C.last.P", "8"},   {"R.C.1.P", "8"},
                      {"R.C.P.P", "7"},     {"R.L.1", "b"},     {"R.C.0.t", "x"},      {"R.C.2.P", "none"},
                      {"R.C.-1.P", "none"}, {"R.No.P", "none"}, {"R.One.P.x", "none"}, {"R.C.0.t.0", "none"},
                      {"", "none"},         {".", "none"},      {"R.", "none"},        {"No", "none"}};
  for (const Row& row : rows) {
    const auto found = root->retrieveForPath(row.document);
    EXPECT_EQ(found ? told(*found) : "none", row.tree) << row.document;
  }
  EXPECT_EQ(told(*root->retrieveForPath("R.L")), "[a, b]");
}

TEST(XmlReader, FindsNamesAmongMany) {
  std::string document = "<r>";
  for (int i = 0; i < 2000; ++i)
    document += "<n" + std::to_string(i % 1000) + ">" + std::to_string(i) + "</n" + std::to_string(i % 1000) + ">";
  const auto root = SMXMLReader::dictionaryForXMLString(document + "</r>", nullptr);
  ASSERT_TRUE(root);
  EXPECT_EQ(root->retrieveForPath("r")->dictionary()->size(), 1000U);
  EXPECT_EQ(told(*root->retrieveForPath("r.n999")), "[999, 1999]");
}

TEST(XmlReader, ReadsOtherEncodings) {
  EXPECT_EQ(read("<?xml version='1.0' encoding='ISO-8859-1'?><a>k\xE4se</a>"), "{a: k\xC3\xA4se}");
  std::string wide = "\xFF\xFE";
  for (const char character : std::string("<a>\xE4</a>")) wide += {character, '\0'};
  EXPECT_EQ(read(wide), "{a: \xC3\xA4}");
  const auto declared = [](const std::string& encoding, const std::string& text) {
    return read("<?xml version='1.0' encoding='" + encoding + "'?><a>" + text + "</a>");
  };
  for (const char* name : {"utf8", "UTF8", "Utf_8", "utf-8"})
    EXPECT_EQ(declared(name, "k\xC3\xA4se \xF0\x9F\x8E\xA5"), "{a: k\xC3\xA4se \xF0\x9F\x8E\xA5}") << name;
  EXPECT_EQ(declared("utf8", "k\xE4se"), "none");
  for (const char* name : {"latin1", "Latin-1", "LATIN_1", "iso8859-1", "ISO_8859-1", "iso-8859-1", "ISO88591"})
    EXPECT_EQ(declared(name, "k\xE4se"), "{a: k\xC3\xA4se}") << name;
  EXPECT_EQ(declared("ISO-8859-15", "\xA4"), "{a: \xE2\x82\xAC}");
  EXPECT_EQ(declared("windows-1252", "\x80"), "{a: \xE2\x82\xAC}");
  EXPECT_EQ(declared("KOI8-R", "\xEB\xC1"), "{a: \xD0\x9A\xD0\xB0}");
  for (const char* name : {"KOI-7", "Shift_JIS", "GB18030", "UTF-7", "ISO-2022-JP", "UCS-4", "EBCDIC-US", "no"})
    EXPECT_EQ(declared(name, "b"), "none") << name;
}

TEST(XmlReader, SaysWhereADamagedDocumentIsDamaged) {
  for (const char* document : {"", "x", "<a>", "<a><b></a>", "<a/><b/>", "<a x='1' x='2'/>", "<a>&no;</a>",
                               "<a>\xFF</a>", "<a>\x01</a>", "<!DOCTYPE a [<!ENTITY e SYSTEM '/etc/hostname'>]><a>&e"})
    EXPECT_EQ(read(document), "none") << document;
  NSError error;
  SMXMLReader::dictionaryForXMLString("<a>\n  <b></c>\n</a>", &error);
  EXPECT_NE(error.description.find("mismatched tag (line 2, column 8)"), std::string::npos) << error.description;
  EXPECT_EQ(SMXMLReader::dictionaryForXMLString("<a>", nullptr), nullptr);
}

TEST(XmlReader, RefusesBombsSoonAndInLittleMemory) {
  std::string laughs = "<!DOCTYPE a [<!ENTITY l0 'laughs and laughs'>";
  for (int i = 1; i < 12; ++i) {
    laughs += "<!ENTITY l" + std::to_string(i) + " '";
    for (int j = 0; j < 10; ++j) laughs += "&l" + std::to_string(i - 1) + ";";
    laughs += "'>";
  }
  laughs += "]><a>&l11;</a>";
  std::string quadratic = "<!DOCTYPE a [<!ENTITY q '" + std::string(200000, 'q') + "'>]><a>";
  for (int i = 0; i < 50000; ++i) quadratic += "&q;";
  quadratic += "</a>";
  std::string deep;
  std::string wide = "<r>";
  const std::string endless = "<!DOCTYPE a [<!ENTITY e '&e;'>]><a>&e;</a>";
  for (int i = 0; i < 200000; ++i) deep += "<a>";
  for (size_t i = 0; i < NSXMLParser::kMostItems; ++i) wide += "<a b='1'/>";
  std::string declarations = "<!DOCTYPE a [<!ATTLIST a";
  for (int i = 0; i < 200000; ++i) declarations += " b" + std::to_string(i) + " CDATA #IMPLIED";
  declarations += ">]><a/>";
  const std::string large = "<a>" + std::string(NSXMLParser::kMostBytes, ' ') + "</a>";
  for (const std::string* document :
       std::initializer_list<const std::string*>{&laughs, &quadratic, &deep, &wide, &endless, &declarations, &large}) {
    const std::clock_t begin = std::clock();  // the processor's time: how busy the machine is does not matter
    EXPECT_EQ(read(*document), "none") << document->substr(0, 40);
    EXPECT_LT(std::clock() - begin, 20 * CLOCKS_PER_SEC) << document->substr(0, 40);
  }
  EXPECT_EQ(read("<!DOCTYPE a [<!ATTLIST a b CDATA '1' c (x|y) #IMPLIED>]><a/>"), "{a: {b: 1}}");
  std::string modest;
  std::string ends;
  for (size_t i = 0; i < NSXMLParser::kMostLevels; ++i) {
    modest += "<a>";
    ends += "</a>";
  }
  EXPECT_NE(read(modest + "x" + ends), "none");
}

TEST(XmlReader, ReadsTheProgramsResources) {
  const test::TemporaryFolder folder;
  folder.write("known.xml", "<a>1</a>");
  NSBundle::mainBundle().setResourceFolder(folder.path());
  const auto root = SMXMLReader::dictionaryForPath("known", nullptr);
  ASSERT_TRUE(root);
  EXPECT_EQ(told(*root), "{a: 1}");
  NSError error;
  EXPECT_EQ(SMXMLReader::dictionaryForPath("unknown", &error), nullptr);
  EXPECT_TRUE(error);
  NSBundle::mainBundle().setResourceFolder("");
}

}  // namespace
}  // namespace vesk
