// Runs files, and all files of directories, through a fuzz target, without the fuzzing engine: replay FILE|DIRECTORY...
// Ends with 1 when an argument can't be read or holds no file, so that a corpus that was moved away fails its test.
#include <algorithm>
#include <vector>

#include "tests/fuzz/fuzz.h"

namespace {

using Path = std::filesystem::path;

std::vector<Path> FilesOf(Path const &argument) {
  std::error_code failed;
  if (!std::filesystem::is_directory(argument, failed)) return {argument};
  std::vector<Path> files;
  for (auto entry = std::filesystem::directory_iterator(argument, failed);
       !failed && entry != std::filesystem::directory_iterator(); entry.increment(failed))
    files.push_back(entry->path());
  std::sort(files.begin(), files.end());
  return files;
}

bool Replay(Path const &file) {
  std::error_code failed;
  if (!std::filesystem::is_regular_file(file, failed)) return false;
  printf("%s\n", file.c_str());
  fflush(stdout);
  std::string const bytes = fuzz::FileBytes(file);
  // A block of just this length, so that a sanitizer sees a read past its end.
  std::vector<std::uint8_t> const input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
  return true;
}

}  // namespace

int main(int count, char **arguments) {
  for (int i = 1; i < count; ++i) {
    std::vector<Path> const files = FilesOf(arguments[i]);
    if (files.empty() || !std::all_of(files.begin(), files.end(), Replay)) {
      printf("can't read %s\n", arguments[i]);
      return 1;
    }
  }
  return 0;
}
