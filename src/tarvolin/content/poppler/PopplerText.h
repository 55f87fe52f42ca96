#pragma once
// The text of a PDF document through poppler, in this process. Only the PDF worker executable
// links this: poppler is a large parser of hostile input, so the engine runs it out of process
// (see PdfWorkerPool) and the search tool never loads its libraries.
//
// One document object per call; calls from several threads at once are safe, but the worker
// makes one at a time.

#include <filesystem>
#include <optional>
#include <string>

namespace tarvolin::PopplerText {

/// The text of every page as UTF-8, pages joined by "\n". Nothing when the file cannot be
/// opened as a PDF, is locked by a password, or holds no text at all. Poppler's own error
/// messages are silenced.
std::optional<std::string> text(const std::filesystem::path& pdf);

}  // namespace tarvolin::PopplerText
