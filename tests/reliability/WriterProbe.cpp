// A process that writes one kind of file for the reliability tests (kinds and versions: see
// ProbeWriters.h). A process of its own, so that it can be killed mid-write, and so that it is
// single-threaded when it enters a namespace of its own.
//   writer_probe KIND TARGET WORK once|forever|full-disk
// WORK is a folder for what the catalog kinds read.
//   once       prepares WORK, writes version A to TARGET and exits (a kill test's start);
//   forever    writes versions B and A alternately to TARGET until killed;
//   full-disk  mounts a small tmpfs on the folder TARGET in a private mount namespace, writes A
//              there, fills the disk and writes B. Prints one line: "ok <error>" when B failed
//              with a clear error and A is still whole with nothing left beside it (status 0),
//              "skip <reason>" when no namespace or mount is allowed (77), "fail <reason>" (1).

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>

#include "reliability/ProbeWriters.h"

namespace {

using namespace tarvolin;

int report(int status, const std::string& line) {
  std::printf("%s\n", line.c_str());
  return status;
}

bool writeText(const char* path, const std::string& text) {
  int fd = ::open(path, O_WRONLY);
  if (fd < 0) return false;
  bool whole = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return whole;
}

// A private mount namespace: as root a plain one, otherwise inside a new user namespace where
// this process is root.
std::string enterNamespace() {
  uid_t uid = ::geteuid();
  gid_t gid = ::getegid();
  if (uid == 0) {
    if (::unshare(CLONE_NEWNS) != 0) return std::string("unshare: ") + std::strerror(errno);
  } else {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      return std::string("unshare: ") + std::strerror(errno);
    }
    if (!writeText("/proc/self/setgroups", "deny") ||
        !writeText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !writeText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
      return "cannot map the user";
    }
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return std::string("private mounts: ") + std::strerror(errno);
  }
  return {};
}

// Writes zeros to `path` until the file system is full, then gives `room` bytes back.
void fillDisk(const std::filesystem::path& path, off_t room) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  static const char zeros[1 << 16] = {};
  off_t size = 0;
  for (;;) {
    ssize_t wrote = ::write(fd, zeros, sizeof zeros);
    if (wrote <= 0) break;
    size += wrote;
  }
  if (::ftruncate(fd, size > room ? size - room : 0) != 0) std::perror("ftruncate");
  ::close(fd);
}

int fullDisk(const std::string& kind, const std::filesystem::path& mount,
             const std::filesystem::path& work) {
  auto [a, b] = probe::versionsOf(kind);
  probe::prepare(work);
  if (std::string refused = enterNamespace(); !refused.empty())
    return report(77, "skip " + refused);
  if (::mount("tarvolin-full", mount.c_str(), "tmpfs", 0, "size=8m") != 0) {
    return report(77, std::string("skip mount: ") + std::strerror(errno));
  }
  std::filesystem::path target = mount / "target";
  probe::writeVersion(kind, a, target, work);
  // A little room for the writers whose file is large, so that they fail in mid-write.
  off_t room = kind == "catalog-info" || kind == "archive" ? 0
               : kind == "catalog-index"                   ? 8 * 1024
                                                           : 64 * 1024;
  fillDisk(mount / "filler", room);

  std::string error;
  try {
    probe::writeVersion(kind, b, target, work);
    return report(1, "fail version B was written to a full disk");
  } catch (const std::system_error& failure) {
    if (failure.code() != std::errc::no_space_on_device) {
      return report(1, std::string("fail not ENOSPC: ") + failure.what());
    }
    error = failure.what();
  } catch (const CatalogArchive::ArchiveError& failure) {
    error = failure.what();
  } catch (const std::exception& failure) {
    return report(1, std::string("fail unexpected error: ") + failure.what());
  }
  int64_t found = probe::loadedVersion(kind, target);
  if (found != a) return report(1, "fail the old file is now " + std::to_string(found));
  for (const auto& entry : std::filesystem::directory_iterator(mount)) {
    std::string name = entry.path().filename();
    if (name != "target" && name != "filler") return report(1, "fail left behind: " + name);
  }
  return report(0, "ok " + error);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fputs("usage: writer_probe KIND TARGET WORK once|forever|full-disk\n", stderr);
    return 2;
  }
  std::string kind = argv[1];
  std::filesystem::path target = argv[2];
  std::filesystem::path work = argv[3];
  std::string mode = argv[4];
  auto [a, b] = probe::versionsOf(kind);
  try {
    if (mode == "full-disk") return fullDisk(kind, target, work);
    if (mode == "once") {
      probe::prepare(work);
      probe::writeVersion(kind, a, target, work);
      return 0;
    }
    for (;;) {
      probe::writeVersion(kind, b, target, work);
      probe::writeVersion(kind, a, target, work);
    }
  } catch (const std::exception& error) {
    return report(1, std::string("fail ") + error.what());
  }
}
