// Reading a resolution catalogue, beside expat alone on the same bytes: with handlers that do
// nothing (it has to hand over what it finds), and with none at all.

#include <benchmark/benchmark.h>
#include <expat.h>

#include <fstream>
#include <iterator>
#include <string>

#include "catalogue/xml_reader.h"

namespace {

const std::string& catalogue() {
  static const std::string text = [] {
    std::ifstream file(VESK_TEST_DATA "/../catalogue/resolutions.xml");
    return std::string(std::istreambuf_iterator<char>(file), {});
  }();
  return text;
}

template <class Read>
void measure(benchmark::State& state, Read read) {
  const std::string& text = catalogue();
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
BENCHMARK(BM_Vesk);
BENCHMARK(BM_ExpatEmptyHandlers);
BENCHMARK(BM_ExpatNoHandlers);

}  // namespace

BENCHMARK_MAIN();
