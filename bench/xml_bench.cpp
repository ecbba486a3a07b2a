// Reading a resolution catalogue, beside expat alone on the same bytes: with handlers that do
// nothing (it has to hand over what it finds), and with none at all.

#include <benchmark/benchmark.h>
#include <expat.h>

#include <fstream>
#include <iterator>
#include <string>

#include <vesk/xml_reader.h>

namespace {

enum Kind : int64_t { kIndented, kDense };

/// The catalogue as it is, or without what stands between its tags, which gives more elements a byte.
const std::string& catalogue(int64_t kind) {
  static const std::string indented = [] {
    std::ifstream file(VESK_TEST_DATA "/../catalogue/resolutions.xml");
    return std::string(std::istreambuf_iterator<char>(file), {});
  }();
  static const std::string dense = [] {
    std::string text;
    bool isBetween = false;
    for (const char character : indented) {
      isBetween = (isBetween && (character == ' ' || character == '\n')) || character == '\n';
      if (!isBetween) text += character;
    }
    return text;
  }();
  return kind == kIndented ? indented : dense;
}

template <class Read>
void measure(benchmark::State& state, Read read) {
  const std::string& text = catalogue(state.range(0));
  for (auto _ : state) {
    if (text.empty() || !read(text)) state.SkipWithError("the catalogue cannot be read");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

bool parseBare(const std::string& text, bool hasHandlers) {
  const XML_Parser parser = XML_ParserCreate(nullptr);
  if (hasHandlers) {
    XML_SetElementHandler(
        parser, [](void*, const char*, const char**) {}, [](void*, const char*) {});
    XML_SetCharacterDataHandler(parser, [](void*, const char*, int) {});
  }
  const bool isRead = XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK;
  XML_ParserFree(parser);
  return isRead;
}

void BM_Vesk(benchmark::State& state) {
  measure(state,
          [](const std::string& text) { return vesk::SMXMLReader::dictionaryForXMLString(text, nullptr) != nullptr; });
}
void BM_ExpatEmptyHandlers(benchmark::State& state) {
  measure(state, [](const std::string& text) { return parseBare(text, true); });
}
void BM_ExpatNoHandlers(benchmark::State& state) {
  measure(state, [](const std::string& text) { return parseBare(text, false); });
}
BENCHMARK(BM_Vesk)->Arg(kIndented)->Arg(kDense);
BENCHMARK(BM_ExpatEmptyHandlers)->Arg(kIndented)->Arg(kDense);
BENCHMARK(BM_ExpatNoHandlers)->Arg(kIndented)->Arg(kDense);

}  // namespace

BENCHMARK_MAIN();
