// Replays a fuzz target's corpus as an ordinary test: every file of each folder
// named on the command line goes to the target once, in name order. A folder
// that is missing or empty fails the run, so a lost corpus is not a silent pass.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "fuzz/fuzzsupport.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s CORPUS_FOLDER...\n", argv[0]);
    return 2;
  }
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i], ec))
      if (entry.is_regular_file()) files.push_back(entry.path());
    if (ec || files.empty()) {
      std::fprintf(stderr, "%s: no corpus files in %s\n", argv[0], argv[i]);
      return 1;
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
      std::ifstream in(file, std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      // An allocation of exactly the input's size, so that a read past its end
      // is caught by the address sanitizer as it is under libFuzzer.
      auto input = std::make_unique<std::uint8_t[]>(bytes.size());
      std::copy(bytes.begin(), bytes.end(), input.get());
      std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.string().c_str(), bytes.size());
      LLVMFuzzerTestOneInput(input.get(), bytes.size());
      ++replayed;
    }
  }
  std::printf("%zu inputs replayed\n", replayed);
  return 0;
}
