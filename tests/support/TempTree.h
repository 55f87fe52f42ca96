#pragma once
// A unique temporary folder, removed with everything in it when the object goes away. Entries
// are made from short entries: "a/b/c.txt" is a file (parents made as needed), "a/.hidden/" a
// folder, "link -> a" a symbolic link.

#include <filesystem>
#include <initializer_list>
#include <string>

namespace tarvolin::testing {

class TempTree {
 public:
  TempTree();
  explicit TempTree(std::initializer_list<std::string> entries);
  ~TempTree();
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  /// Makes one entry from a entry as described above; files get `contents`.
  void add(const std::string& entry, const std::string& contents = "");
  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path operator/(const std::string& relative) const { return root_ / relative; }

 private:
  std::filesystem::path root_;
};

/// Reads a whole file as bytes (empty when it cannot be read).
std::string readFile(const std::filesystem::path& path);
/// Writes bytes to a file, replacing it.
void writeFile(const std::filesystem::path& path, const std::string& bytes);

}  // namespace tarvolin::testing
