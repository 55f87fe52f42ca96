// Document text: inflating Office archive entries and reducing XML to its character data, in
// bytes of output (inflate) and of input (XML) per second.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "support/ZipWriter.h"
#include "tarvolin/content/TextExtraction.h"
#include "tarvolin/content/ZipReader.h"

namespace {

// Word-processor XML of about `bytes` bytes: runs of words in paragraph, run and text tags.
std::string documentXml(size_t bytes) {
  static const char* words[] = {"quarterly", "report", "the", "revenue", "of",          "and",
                                "projected", "growth", "in",  "region",  "caf\xC3\xA9", "analysis",
                                "&amp;",     "costs",  "for", "2024"};
  std::mt19937 random(7);
  std::string xml = "<?xml version=\"1.0\"?><w:document><w:body>";
  while (xml.size() < bytes) {
    xml += "<w:p><w:pPr><w:pStyle w:val=\"Normal\"/></w:pPr><w:r><w:rPr><w:b/></w:rPr><w:t>";
    for (int i = 0; i < 12; ++i) {
      xml += words[random() % 16];
      xml += ' ';
    }
    xml += "</w:t></w:r></w:p>\n";
  }
  return xml + "</w:body></w:document>";
}

std::span<const uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// A presentation of 20 slides of 200 KiB XML each, plus entries the reader skips.
void BM_ZipReader_Inflate(benchmark::State& state) {
  std::vector<tarvolin::testing::ZipEntrySpec> entries;
  size_t expected = 0;
  for (int slide = 1; slide <= 20; ++slide) {
    std::string xml = documentXml(200 << 10);
    expected += xml.size();
    entries.push_back({"ppt/slides/slide" + std::to_string(slide) + ".xml", std::move(xml)});
    entries.push_back(
        {"ppt/slides/_rels/slide" + std::to_string(slide) + ".xml.rels", documentXml(4 << 10)});
  }
  const std::string archive = tarvolin::testing::makeZip(entries);
  auto slides = [](std::string_view name) {
    return name.starts_with("ppt/slides/slide") && name.ends_with(".xml");
  };
  size_t got = 0;
  for (const auto& entry : tarvolin::ZipReader::entries(bytesOf(archive), slides)) {
    got += entry.data.size();
  }
  if (got != expected) {
    state.SkipWithError("inflated entries differ from what was written");
    return;
  }
  for (auto _ : state) {
    auto read = tarvolin::ZipReader::entries(bytesOf(archive), slides);
    benchmark::DoNotOptimize(read.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * expected));
  state.counters["compressed_MiB"] = static_cast<double>(archive.size()) / (1 << 20);
}
BENCHMARK(BM_ZipReader_Inflate)->Unit(benchmark::kMillisecond);

void BM_TextExtraction_TextFromXML(benchmark::State& state) {
  const std::string xml = documentXml(static_cast<size_t>(state.range(0)));
  std::string text = tarvolin::TextExtraction::textFromXML(bytesOf(xml));
  if (text.find(" quarterly ") == std::string::npos || text.find('<') != std::string::npos) {
    state.SkipWithError("the XML did not reduce to its words");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(tarvolin::TextExtraction::textFromXML(bytesOf(xml)));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * xml.size()));
}
BENCHMARK(BM_TextExtraction_TextFromXML)->Arg(4 << 20);

}  // namespace
