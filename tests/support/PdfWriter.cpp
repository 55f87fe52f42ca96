#include "support/PdfWriter.h"

#include <cstdio>

namespace tarvolin::testing {

// A PDF of one page per string, each page showing its string in Helvetica, with a correct
// cross-reference table.
std::string makePdf(const std::vector<std::string>& pages) {
  std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R >>", "",
                                      "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>"};
  std::string kids;
  for (const std::string& page : pages) {
    size_t pageObject = objects.size() + 1;
    kids += std::to_string(pageObject) + " 0 R ";
    objects.push_back(
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] "
        "/Resources << /Font "
        "<< /F1 3 0 R >> >> /Contents " +
        std::to_string(pageObject + 1) + " 0 R >>");
    std::string content = "BT /F1 24 Tf 72 700 Td (" + page + ") Tj ET";
    objects.push_back("<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content +
                      "\nendstream");
  }
  objects[1] =
      "<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages.size()) + " >>";

  std::string pdf = "%PDF-1.4\n";
  std::vector<size_t> offsets;
  for (size_t i = 0; i < objects.size(); ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  size_t xref = pdf.size();
  pdf += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
  for (size_t offset : offsets) {
    char line[21];
    std::snprintf(line, sizeof line, "%010zu 00000 n \n", offset);
    pdf += line;
  }
  pdf += "trailer\n<< /Size " + std::to_string(objects.size() + 1) +
         " /Root 1 0 R >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
  return pdf;
}

}  // namespace tarvolin::testing
