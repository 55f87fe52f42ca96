#include "support/TempTree.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tarvolin::testing {

TempTree::TempTree() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarvolin-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = pattern;
}

TempTree::TempTree(std::initializer_list<std::string> entries) : TempTree() {
  for (const std::string& entry : entries) add(entry);
}

TempTree::~TempTree() {
  std::error_code ignored;
  // Give back permissions a test may have taken away, so removal can descend.
  for (auto it = std::filesystem::recursive_directory_iterator(
           root_, std::filesystem::directory_options::skip_permission_denied, ignored);
       it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
      chmod(it->path().c_str(), 0755);
    }
  }
  chmod(root_.c_str(), 0755);
  std::filesystem::remove_all(root_, ignored);
}

void TempTree::add(const std::string& entry, const std::string& contents) {
  size_t arrow = entry.find(" -> ");
  if (arrow != std::string::npos) {
    std::filesystem::path link = root_ / entry.substr(0, arrow);
    std::filesystem::create_directories(link.parent_path());
    std::filesystem::create_symlink(entry.substr(arrow + 4), link);
    return;
  }
  if (!entry.empty() && entry.back() == '/') {
    std::filesystem::create_directories(root_ / entry);
    return;
  }
  std::filesystem::path file = root_ / entry;
  std::filesystem::create_directories(file.parent_path());
  writeFile(file, contents);
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace tarvolin::testing
