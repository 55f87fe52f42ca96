// The default extractor lives apart from the builder so that a build given its own extractor
// links without the document readers.
#include "tarvolin/content/ContentIndexBuilder.h"
#include "tarvolin/content/TextExtraction.h"

namespace tarvolin::ContentIndexBuilder {

std::optional<std::string> defaultExtract(const std::string& path) {
  if (std::find(plainTextExtensions.begin(), plainTextExtensions.end(),
                lowercasedExtension(path)) != plainTextExtensions.end()) {
    return TextExtraction::plainText(path);
  }
  return TextExtraction::extractedText(path);
}

}  // namespace tarvolin::ContentIndexBuilder
