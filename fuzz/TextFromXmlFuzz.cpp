// Any bytes as an XML part and as a binary office entry: both reductions give well-formed
// UTF-8 of bounded size. textFromXML never outputs more than three bytes per input byte (a
// replacement character for an invalid one); printableRuns only input bytes and the spaces
// between runs.

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "tarvolin/content/TextExtraction.h"
#include "tarvolin/platform/Unicode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  std::string text = tarvolin::TextExtraction::textFromXML(bytes);
  if (!tarvolin::platform::isValidUtf8(text) || text.size() > 3 * size) std::abort();
  if (text.find('<') != std::string::npos || text.find("  ") != std::string::npos) std::abort();

  size_t minimumLength = size == 0 ? 4 : data[0] % 8;
  std::string runs = tarvolin::TextExtraction::printableRuns(bytes, minimumLength);
  if (!tarvolin::platform::isValidUtf8(runs) || runs.size() > size) std::abort();
  return 0;
}
