// Runs a fuzz target over the files of a directory: the ordinary suite replays the seeds and every input that ever
// failed. Prints how many it ran; an input that fails ends the process.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::filesystem::path corpus = std::filesystem::absolute(argv[1]);
  int inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
    std::fprintf(stderr, "%s\n", entry.path().c_str());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // A copy of exactly its size, so that a checker of memory sees any step outside.
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++inputs;
  }
  std::fprintf(stderr, "%d inputs\n", inputs);
  return inputs > 0 ? 0 : 1;
}
