// tests/fuzz/fuzz.h - what the fuzz targets share.
//
// A target is a file with one LLVMFuzzerTestOneInput, which takes any bytes, and holds what the code makes of them
// against a second way to the same answer. With clang's fuzzing engine it is linked into a program that makes up inputs
// (scripts/fuzz.sh); else with replay.cpp into one that runs the inputs of corpus/<target>/ as a test. A target must
// give the same verdict on the same bytes every time, and leave nothing behind for the next input.
#pragma once
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include "brenthaven/text/sstring.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size);

namespace fuzz {

// Ends the process, which the engine takes as a finding and the test as a failure.
[[noreturn]] inline void Fail(char const *what, std::string_view detail = {}) {
  dprintf(STDERR_FILENO, "FOUND: %s\n%.*s%s", what, static_cast<int>(detail.size()), detail.data(),
          detail.empty() ? "" : "\n");
  abort();
}
inline void Expect(bool holds, char const *what, std::string_view detail = {}) {
  if (!holds) Fail(what, detail);
}

inline std::string_view View(std::uint8_t const *data, size_t size) {
  return {reinterpret_cast<char const *>(data), size};
}
inline SString Text(std::string_view bytes) { return SString(bytes); }
inline std::string Bytes(SString const &text) { return std::string(text.View()); }

// Takes what stands before the next line feed off a text, and the line feed with it: inputs of several parts have one a
// line, the last part to the end, so that they can be read and written with an editor.
inline std::string_view TakeLine(std::string_view &text) {
  std::string_view const line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

// The library tells about bad settings on the error stream, thousands of times a second here. Findings and the engine's
// own lines go to the descriptor and are still seen.
inline void MuteErrorStream() {
  static FILE *const nowhere = fopen("/dev/null", "w");
  stderr = nowhere;
  std::cerr.rdbuf(nullptr);
}

// A directory in memory for the targets that need files, made once a process and removed at its end; a finding leaves
// it to whoever set TMPDIR.
class SMemoryDirectory {
public:
  static std::string Path(char const *name) { return _Instance()._path + "/" + name; }

private:
  SMemoryDirectory() {
    char const *set = getenv("TMPDIR");
    std::string pattern = std::string(set != nullptr ? set : "/dev/shm") + "/brenthaven-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) Fail("no directory for files", pattern);
    _path = pattern;
  }
  ~SMemoryDirectory() {
    std::error_code ignored;  // it lies in memory or in a directory for temporary files
    std::filesystem::remove_all(_path, ignored);
  }
  static SMemoryDirectory &_Instance() {
    static SMemoryDirectory directory;
    return directory;
  }

  std::string _path;
};

inline void PutFile(std::string const &path, std::string_view bytes) {
  FILE *file = fopen(path.c_str(), "wb");
  bool const isWritten =
      file != nullptr && (bytes.empty() || fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
  if (!isWritten || fclose(file) != 0) Fail("can't write a file", path);
}
inline std::string FileBytes(std::string const &path) {
  std::string bytes;
  FILE *file = fopen(path.c_str(), "rb");
  if (file == nullptr) return bytes;
  char buffer[65536];
  while (size_t const got = fread(buffer, 1, sizeof buffer, file)) bytes.append(buffer, got);
  if (fclose(file) != 0) Fail("can't read a file", path);
  return bytes;
}

}  // namespace fuzz
