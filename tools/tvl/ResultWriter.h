#pragma once
// Streams many results to standard output for scripts: records are gathered in a batch that is
// handed to standard output 64 KiB at a time, so a long listing costs one write(2) per 64 KiB
// rather than one per result. When the reader goes away (`tvl query ... | head -1`) the first
// failed write ends the stream quietly: SIGPIPE is ignored from the first writer on (to the end of
// the process, whose final flush would otherwise meet the closed pipe too), the failure is
// remembered, and later records are dropped. Main thread only.

#include <string>
#include <string_view>

namespace tvl {

class ResultWriter {
 public:
  static constexpr size_t batchBytes = 1 << 16;

  /// `separator` ends every record: '\n', or '\0' for `-0`.
  explicit ResultWriter(char separator);
  /// Hands over what is left (same as finish()).
  ~ResultWriter();
  ResultWriter(const ResultWriter&) = delete;
  ResultWriter& operator=(const ResultWriter&) = delete;

  /// The batch to append one record's bytes to; call endRecord() after each record.
  std::string& buffer() { return batch_; }
  /// Ends the record just appended and writes the batch when it is full.
  void endRecord();
  /// Appends `bytes` as one record.
  void record(std::string_view bytes);
  /// Writes what is gathered and flushes standard output.
  void finish();
  /// True once a write failed: the reader is gone and nothing more is worth producing.
  bool closed() const { return closed_; }

 private:
  /// Writes the first `bytes` of the batch and keeps the rest for the next.
  void write(size_t bytes);

  const char separator_;
  std::string batch_;
  bool closed_ = false;
};

}  // namespace tvl
