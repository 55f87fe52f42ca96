// tvl-pdftext: the PDF worker process. Reads requests (a PDF's path) from stdin and writes
// replies (status and text) to stdout in the framing of PdfWorkerProtocol, one at a time, until
// stdin ends. The engine starts it under CPU-time and address-space limits, so a document that
// crashes the parser, makes it loop or eats memory costs this process only.
//
//   tvl-pdftext [--retire-after-cpu-seconds N]
//
// With the option, the worker says it retires in the reply after which it has used N seconds of
// CPU time, and exits: its CPU limit counts over its whole life, and retiring early leaves
// every document the full per-document budget.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "tarvolin/content/poppler/PdfWorkerProtocol.h"
#include "tarvolin/content/poppler/PopplerText.h"

namespace {

namespace protocol = tarvolin::PdfWorkerProtocol;

bool readExactly(void* into, size_t bytes) {
  return bytes == 0 || std::fread(into, 1, bytes, stdin) == bytes;
}

bool writeReply(uint8_t status, uint8_t flags, std::string_view text) {
  uint8_t header[protocol::replyHeaderBytes] = {status, flags, 0, 0};
  protocol::put32(header + 4, static_cast<uint32_t>(text.size()));
  return std::fwrite(header, 1, sizeof header, stdout) == sizeof header &&
         std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
         std::fflush(stdout) == 0;
}

// `text` cut to at most maxTextBytes without splitting a UTF-8 sequence.
std::string_view capped(std::string_view text) {
  if (text.size() <= protocol::maxTextBytes) return text;
  size_t end = protocol::maxTextBytes;
  while (end > 0 && (static_cast<uint8_t>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<double> retireAfterCpuSeconds;
  for (int i = 1; i < argc; ++i) {
    std::string_view argument = argv[i];
    if (argument == "--retire-after-cpu-seconds" && i + 1 < argc) {
      retireAfterCpuSeconds = std::strtod(argv[++i], nullptr);
    } else {
      std::fputs("usage: tvl-pdftext [--retire-after-cpu-seconds N]\n", stderr);
      return 2;
    }
  }

  std::string path;
  for (;;) {
    uint8_t header[protocol::requestHeaderBytes];
    if (std::fread(header, 1, sizeof header, stdin) != sizeof header) return 0;  // stdin ended
    uint32_t pathBytes = protocol::get32(header);
    if (pathBytes == 0 || pathBytes > protocol::maxPathBytes) return 2;
    path.resize(pathBytes);
    if (!readExactly(path.data(), pathBytes)) return 2;

    std::optional<std::string> text = tarvolin::PopplerText::text(path);
    bool retiring = retireAfterCpuSeconds &&
                    static_cast<double>(std::clock()) / CLOCKS_PER_SEC >= *retireAfterCpuSeconds;
    uint8_t flags = retiring ? protocol::retiring : 0;
    bool written = text && !text->empty() ? writeReply(protocol::text, flags, capped(*text))
                                          : writeReply(protocol::noText, flags, {});
    if (!written) return 1;
    if (retiring) return 0;
  }
}
