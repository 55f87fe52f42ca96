#include "ResultWriter.h"

#include <csignal>
#include <cstdio>

#include "Output.h"

namespace tvl {

ResultWriter::ResultWriter(char separator) : separator_(separator) {
  std::signal(SIGPIPE, SIG_IGN);
  // What a command printed before (through Output) goes first.
  output::flush();
  batch_.reserve(batchBytes + 4096);
}

ResultWriter::~ResultWriter() { finish(); }

void ResultWriter::endRecord() {
  batch_.push_back(separator_);
  if (batch_.size() >= batchBytes) write();
}

void ResultWriter::record(std::string_view bytes) {
  batch_.append(bytes);
  endRecord();
}

void ResultWriter::finish() {
  write();
  if (!closed_ && std::fflush(stdout) != 0) closed_ = true;
}

void ResultWriter::write() {
  if (!closed_ && !batch_.empty()) {
    // Standard output's own buffer is empty here (flushed above and after every batch), so a
    // whole batch goes to the kernel in one write.
    if (std::fwrite(batch_.data(), 1, batch_.size(), stdout) != batch_.size() ||
        std::fflush(stdout) != 0) {
      closed_ = true;
    }
  }
  batch_.clear();
}

}  // namespace tvl
