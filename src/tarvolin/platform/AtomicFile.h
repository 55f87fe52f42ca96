#pragma once
// Writes a file so that readers see either the old file or the new one whole, never a short one:
// the bytes go to a sibling temporary file, which is fsynced, renamed over the target, and the
// folder is fsynced after the rename. Until `commit()` succeeds the target is not touched; an
// object destroyed without a successful commit removes its temporary file.
// One object belongs to one thread. The observer is process-wide; tests set it while no
// replacement is under way.

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

class AtomicFile {
 public:
  /// Creates the target's folder with intermediates and creates (truncating) `temporary` for
  /// writing. Throws std::system_error (std::filesystem::filesystem_error for the folder).
  AtomicFile(std::filesystem::path target, std::filesystem::path temporary);
  /// The same with the temporary path `target` + ".tmp".
  explicit AtomicFile(std::filesystem::path target);
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  /// Appends bytes to the temporary file. Throws std::system_error.
  void write(std::span<const uint8_t> bytes);
  void write(std::string_view text);
  /// Appends the parts in order, in one gathered write (see FileDescriptor::writeAll).
  void write(std::span<const std::span<const uint8_t>> parts);
  /// fsync, close, rename over the target, fsync the folder. Throws std::system_error; after a
  /// failure the temporary file is gone and the target is as it was.
  void commit();

  /// Writes `bytes` as the whole new content of `target` in one call.
  static void replaceContents(const std::filesystem::path& target, std::span<const uint8_t> bytes);
  /// Replaces `target` with the finished file at `from` (made by another library, say): fsync
  /// of the file, rename over the target, fsync of the folder. Throws std::system_error; after
  /// a failure `from` is left to the caller and the target is as it was.
  static void moveIntoPlace(const std::filesystem::path& from, const std::filesystem::path& target);

  /// The steps of a replacement, in the order they are made.
  enum class Step {
    syncFile,    // the new file's bytes are on disk; path: the temporary file
    rename,      // the new file is at the target; path: the target
    syncFolder,  // the rename is on disk; path: the folder
  };
  using Observer = void (*)(Step step, const std::filesystem::path& path);
  /// Calls `observer` after each step succeeds, for every replacement in the process, so that
  /// tests can check that each writer makes all three, in order. nullptr stops the calls.
  static void setObserver(Observer observer);

  const std::filesystem::path& temporaryPath() const { return temporary_; }

 private:
  void discard() noexcept;

  std::filesystem::path target_;
  std::filesystem::path temporary_;
  FileDescriptor fd_;
  bool committed_ = false;
};

}  // namespace tarvolin::platform
