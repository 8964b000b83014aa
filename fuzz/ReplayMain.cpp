// Runs a fuzz target once over every file of the folders named, so that each test run of any build
// replays the seeds. A broken promise ends the process.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesOf(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator{folder, error}) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool replay(const std::filesystem::path& file) {
  std::ifstream stream{file, std::ios::binary};
  if (!stream) return false;
  const std::string content{std::istreambuf_iterator<char>{stream}, {}};
  const std::vector<std::uint8_t> input(content.begin(), content.end());
  std::printf("%s (%zu bytes)\n", file.filename().c_str(), input.size());
  (void)std::fflush(stdout);  // The name must be out before a crash.
  return LLVMFuzzerTestOneInput(input.data(), input.size()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  int failures = argc > 1 ? 0 : 1;
  for (int i = 1; i < argc; ++i) {
    const std::vector<std::filesystem::path> files = filesOf(argv[i]);
    if (files.empty()) {
      std::fprintf(stderr, "%s: no files to replay\n", argv[i]);
      ++failures;
    }
    for (const std::filesystem::path& file : files) {
      if (replay(file)) continue;
      std::fprintf(stderr, "%s: cannot be replayed\n", file.c_str());
      ++failures;
    }
  }
  return failures == 0 ? 0 : 1;
}
