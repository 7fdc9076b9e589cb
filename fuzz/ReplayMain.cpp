// Runs a fuzz target over every file of a corpus folder (or over the files named), so the corpus is
// replayed on every build, with any compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      for (const auto& e : std::filesystem::recursive_directory_iterator(arg)) {
        if (e.is_regular_file()) files.push_back(e.path());
      }
    } else {
      files.push_back(arg);
    }
  }
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    std::fprintf(stderr, "no corpus files given\n");
    return 1;
  }
  for (const auto& f : files) {
    std::ifstream in(f, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu corpus files\n", files.size());
  return 0;
}
