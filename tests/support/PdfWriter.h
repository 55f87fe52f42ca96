#pragma once
// Writes small valid PDF files for tests: one page per string, each showing its string in
// Helvetica, with a correct cross-reference table.

#include <string>
#include <vector>

namespace tarvolin::testing {

/// The bytes of a PDF whose pages show `pages` in order.
std::string makePdf(const std::vector<std::string>& pages);

}  // namespace tarvolin::testing
