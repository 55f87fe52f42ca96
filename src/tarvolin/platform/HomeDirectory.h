#pragma once
// Where the user's files live: $HOME, else the password database entry of the real user.

#include <string>

namespace tarvolin::platform {

/// The home directory as an absolute path string without a trailing "/" (except "/" itself).
std::string homeDirectory();

}  // namespace tarvolin::platform
