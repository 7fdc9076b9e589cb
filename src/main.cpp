#include <cstdio>
#include <cstring>

#include "Version.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--version") == 0) {
      std::printf("tavrel %s\n", tavrel::kVersionText);
      return 0;
    }
    if (std::strcmp(argv[i], "--help") == 0) {
      std::printf("usage: tavrel [--version] [--help]\n");
      return 0;
    }
  }
  std::fprintf(stderr, "tavrel: the service is not built yet\n");
  return 2;
}
