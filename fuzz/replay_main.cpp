// Replays a fuzz target's saved inputs outside the fuzzer, so that every test
// run checks the target's properties on its corpus with the ordinary
// compiler (and its coverage counts).
//
//   <target> DIR|FILE...   runs the target once per file; fails when there is
//                          no input at all (a corpus that went missing)
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::set<fs::path> inputs;  // sorted, so a failure repeats in the same order
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::directory_iterator(argv[i]))
        if (entry.is_regular_file()) inputs.insert(entry.path());
    } else if (fs::is_regular_file(argv[i])) {
      inputs.insert(argv[i]);
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs to replay\n");
    return 1;
  }
  for (const fs::path& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Each input is copied to a buffer of exactly its size, as the fuzzer
    // does, so a read past its end is caught by AddressSanitizer.
    std::vector<std::uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
  }
  std::printf("%zu inputs replayed\n", inputs.size());
  return 0;
}
