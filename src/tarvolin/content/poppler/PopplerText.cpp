#include "tarvolin/content/poppler/PopplerText.h"

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string_view>

namespace tarvolin::PopplerText {

namespace {

void ignoreMessage(const std::string&, void*) {}

// The smallest document poppler accepts (it rebuilds the missing cross-reference table).
constexpr std::string_view kEmptyPdf =
    "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj\n"
    "2 0 obj<</Type/Pages/Kids[]/Count 0>>endobj\ntrailer<</Root 1 0 R>>\n%%EOF\n";

// Poppler sets up its global state (font configuration and more) when the first document
// opens and tears it down when the last one closes: documents read one after another would
// pay that each time, about 1.2 ms against 0.04 ms for the open itself. One empty document
// kept open for the life of the process keeps that state.
void keepGlobalStateAlive() {
  static std::unique_ptr<poppler::document> keeper(
      poppler::document::load_from_raw_data(kEmptyPdf.data(), static_cast<int>(kEmptyPdf.size())));
}

}  // namespace

std::optional<std::string> text(const std::filesystem::path& pdf) {
  // By default poppler writes every complaint about a damaged file to stderr.
  static std::once_flag prepared;
  std::call_once(prepared, [] {
    poppler::set_debug_error_function(ignoreMessage, nullptr);
    keepGlobalStateAlive();
  });

  std::unique_ptr<poppler::document> document(poppler::document::load_from_file(pdf.string()));
  if (!document || document->is_locked()) return std::nullopt;
  std::string text;
  bool hasText = false;
  for (int i = 0, pages = document->pages(); i < pages; ++i) {
    if (i > 0) text += '\n';
    std::unique_ptr<poppler::page> page(document->create_page(i));
    if (!page) continue;
    poppler::byte_array utf8 = page->text().to_utf8();
    // Poppler ends a page with a form feed; the line feed between pages already marks it.
    size_t length = utf8.size();
    while (length > 0 && utf8[length - 1] == '\f') --length;
    text.append(utf8.begin(), utf8.begin() + static_cast<std::ptrdiff_t>(length));
    hasText = hasText || length > 0;
  }
  if (!hasText) return std::nullopt;
  return text;
}

}  // namespace tarvolin::PopplerText
