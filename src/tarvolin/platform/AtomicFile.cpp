#include "tarvolin/platform/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

namespace {

std::filesystem::path withTmpExtension(const std::filesystem::path& target) {
  std::filesystem::path temporary = target;
  temporary += ".tmp";
  return temporary;
}

std::atomic<AtomicFile::Observer> observer{nullptr};

void notify(AtomicFile::Step step, const std::filesystem::path& path) {
  if (AtomicFile::Observer call = observer.load(std::memory_order_acquire)) call(step, path);
}

void renameOver(const std::filesystem::path& from, const std::filesystem::path& target) {
  if (::rename(from.c_str(), target.c_str()) != 0) throwErrno("rename " + target.string());
  notify(AtomicFile::Step::rename, target);
}

void syncFolder(const std::filesystem::path& target) {
  std::filesystem::path folder = target.parent_path();
  if (folder.empty()) folder = ".";
  FileDescriptor dir = FileDescriptor::tryOpen(folder, O_RDONLY | O_DIRECTORY);
  // A folder that cannot be opened for fsync (some file systems refuse) does not undo the rename.
  if (!dir.valid() || ::fsync(dir.get()) != 0) return;
  notify(AtomicFile::Step::syncFolder, folder);
}

}  // namespace

AtomicFile::AtomicFile(std::filesystem::path target, std::filesystem::path temporary)
    : target_(std::move(target)), temporary_(std::move(temporary)) {
  std::filesystem::path folder = target_.parent_path();
  if (!folder.empty()) std::filesystem::create_directories(folder);
  fd_ = FileDescriptor::open(temporary_, O_WRONLY | O_CREAT | O_TRUNC, 0644);
}

AtomicFile::AtomicFile(std::filesystem::path target)
    : AtomicFile(target, withTmpExtension(target)) {}

AtomicFile::~AtomicFile() {
  if (!committed_) discard();
}

void AtomicFile::discard() noexcept {
  if (fd_.valid()) ::close(fd_.release());
  ::unlink(temporary_.c_str());
}

void AtomicFile::write(std::span<const uint8_t> bytes) {
  const std::span<const uint8_t> parts[] = {bytes};
  write(parts);
}

void AtomicFile::write(std::span<const std::span<const uint8_t>> parts) {
  try {
    fd_.writeAll(parts);
  } catch (...) {
    discard();
    committed_ = true;  // nothing left to clean up
    throw;
  }
}

void AtomicFile::write(std::string_view text) {
  write(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void AtomicFile::commit() {
  try {
    fd_.sync();
    notify(Step::syncFile, temporary_);
    fd_.close();
    renameOver(temporary_, target_);
  } catch (...) {
    discard();
    committed_ = true;
    throw;
  }
  committed_ = true;
  syncFolder(target_);
}

void AtomicFile::replaceContents(const std::filesystem::path& target,
                                 std::span<const uint8_t> bytes) {
  AtomicFile file(target);
  file.write(bytes);
  file.commit();
}

void AtomicFile::moveIntoPlace(const std::filesystem::path& from,
                               const std::filesystem::path& target) {
  FileDescriptor::open(from, O_RDONLY).sync();
  notify(Step::syncFile, from);
  renameOver(from, target);
  syncFolder(target);
}

void AtomicFile::setObserver(Observer call) { observer.store(call, std::memory_order_release); }

}  // namespace tarvolin::platform
