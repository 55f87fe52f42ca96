#include "Text.h"

#include "tarvolin/platform/Unicode.h"

namespace tvl {

std::string fitToWidth(std::string_view text, size_t width) {
  std::vector<std::string> characters = tarvolin::platform::graphemeClusters(text);
  std::string fitted;
  size_t count = 0;
  for (const std::string& character : characters) {
    if (count == width) break;
    fitted += character;
    ++count;
  }
  fitted.append(width - count, ' ');
  return fitted;
}

}  // namespace tvl
