#include "tarvolin/content/poppler/PopplerText.h"

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <cstddef>
#include <memory>
#include <mutex>

namespace tarvolin::PopplerText {

namespace {

void ignoreMessage(const std::string&, void*) {}

}  // namespace

std::optional<std::string> text(const std::filesystem::path& pdf) {
  // By default poppler writes every complaint about a damaged file to stderr.
  static std::once_flag silenced;
  std::call_once(silenced, [] { poppler::set_debug_error_function(ignoreMessage, nullptr); });

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
