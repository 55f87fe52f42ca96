// Runs a fuzz target's entry point over saved inputs without the fuzzing engine, so any compiler
// can check that a corpus still passes: each argument is a file, or a folder whose files are all
// run (not recursively). A crash or a sanitizer report ends the run; otherwise prints the count.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return 1;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
  // A null pointer for no bytes, as the engine passes an empty input.
  LLVMFuzzerTestOneInput(bytes.empty() ? nullptr : bytes.data(), bytes.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  size_t inputs = 0;
  int failures = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path path = argv[i];
    if (std::filesystem::is_directory(path)) {
      std::vector<std::filesystem::path> files;
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
      std::sort(files.begin(), files.end());
      for (const auto& file : files) {
        failures += replay(file);
        ++inputs;
      }
    } else {
      failures += replay(path);
      ++inputs;
    }
  }
  std::printf("%zu inputs replayed\n", inputs);
  return failures == 0 && inputs > 0 ? 0 : 1;
}
