#pragma once
// What an interactive front end asks of the system beyond its terminal: opening a file with the
// desktop's preferred program, and the size and date of one path. Plain functions; any thread.

#include <optional>
#include <string>
#include <vector>

#include "tarvolin/platform/DirectoryReader.h"

namespace tarvolin::platform {

/// Starts `program` with `arguments` in its own session, detached from this process's terminal
/// (standard input, output and error on /dev/null), and returns without waiting for it: the
/// program is started through a short-lived shell that puts it in the background, so it is never
/// left a zombie of ours. False when the program is not on the PATH or cannot be started.
bool startDetached(const std::string& program, const std::vector<std::string>& arguments);

/// lstat of `path` (a link is described, not followed), or nothing when it cannot be read.
std::optional<EntryStatus> linkStatus(const std::string& path);

}  // namespace tarvolin::platform
