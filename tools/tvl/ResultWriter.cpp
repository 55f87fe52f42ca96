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
  if (batch_.size() >= batchBytes) write(batchBytes);
}

void ResultWriter::record(std::string_view bytes) {
  batch_.append(bytes);
  endRecord();
}

void ResultWriter::finish() {
  write(batch_.size());
  if (!closed_ && std::fflush(stdout) != 0) closed_ = true;
}

void ResultWriter::write(size_t bytes) {
  if (!closed_ && bytes > 0) {
    // Standard output's own buffer is empty here (flushed before the first batch and after
    // every one), so the batch goes to the kernel in one write of exactly `bytes`.
    if (std::fwrite(batch_.data(), 1, bytes, stdout) != bytes || std::fflush(stdout) != 0) {
      closed_ = true;
    }
  }
  // The start of the record that crossed the batch's end begins the next batch.
  batch_.erase(0, closed_ ? batch_.size() : bytes);
}

}  // namespace tvl
