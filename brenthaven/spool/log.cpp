#include "brenthaven/spool/log.h"

#include <cstdio>

#include "brenthaven/platform/logtext.h"

void WriteLog(SString const &text) {
  // The error stream is the last resort: where it fails too, there is nobody left to tell.
  (void)fwrite(static_cast<char const *>(text), 1, static_cast<size_t>(text.Length()), stderr);
  (void)fflush(stderr);
}

void WriteLogLine(SString const &line) { WriteLog(SString(LogText(line.View()) + "\n")); }
