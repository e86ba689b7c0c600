#include "brenthaven/spool/log.h"

#include <algorithm>
#include <cstdio>
#include <string>

void WriteLog(SString const &text) {
  // The error stream is the last resort: where it fails too, there is nobody left to tell.
  (void)fwrite(static_cast<char const *>(text), 1, static_cast<size_t>(text.Length()), stderr);
  (void)fflush(stderr);
}

void WriteLogLine(SString const &line) {
  std::string text(line.View());
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, '?');
  WriteLog(SString(text + "\n"));
}
