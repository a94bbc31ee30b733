// Runs a fuzz target once over each file named on the command line (or each file in a named folder):
// the corpus and every crash ever found replay as a regression test in builds without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  size_t runs = 0;
  auto replay = [&](const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++runs;
  };
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::directory_iterator(argv[i])) replay(entry.path());
    } else {
      replay(argv[i]);
    }
  }
  std::printf("replayed %zu inputs\n", runs);
  return runs > 0 ? 0 : 1;
}
