// Feeds every file of a corpus to the target, once and in order of name, with any compiler. An
// empty directory is a failure, so that a corpus that is not found cannot pass.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fuzz/require.h"
#include "tests/support/TemporaryDirectory.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS-DIRECTORY\n", argv[0]);
    return 2;
  }
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    paths.push_back(entry.path().string());
  }
  std::sort(paths.begin(), paths.end());
  LLVMFuzzerTestOneInput(nullptr, 0);
  for (const std::string& path : paths) {
    // Said before, so that the file is known when the process does not come back.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    const std::string text = tests::readFile(path);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  }
  return paths.empty() ? 1 : 0;
}
