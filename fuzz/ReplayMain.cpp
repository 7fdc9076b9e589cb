// Runs a fuzz target over every file of the corpus folders given, so the corpus is replayed on every build.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "core/Files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i)
    for (const auto& e : std::filesystem::recursive_directory_iterator(argv[i]))
      if (e.is_regular_file()) files.push_back(e.path());
  std::sort(files.begin(), files.end());
  for (const auto& f : files) {
    const std::string bytes = tavrel::ReadWholeFile(f).value_or("");
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu corpus files\n", files.size());
  return files.empty() ? 1 : 0;
}
