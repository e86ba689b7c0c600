#include "brenthaven/mailbox/diskspace.h"

#include <time.h>

#include "brenthaven/platform/files.h"
#include "brenthaven/spool/errors.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringlist.h"

namespace {

constexpr double kKilobyte = 1024;
constexpr double kDefaultMinimumKB = 50;
constexpr long kWarningPeriod = 86400;  // seconds between two warnings

// Bytes that must stay free.
double MinimumFree() {
  double const kilobytes = GetEnv("MinFreeDiskSpaceKB").AsDouble();
  return (kilobytes > 0 ? kilobytes : kDefaultMinimumKB) * kKilobyte;
}

// The nearest directory that exists at or above path; undefined when there is none below the root's name.
SString ExistingDirectory(SString const &path) {
  SStringList parts = path.SplitExact("/");
  while (parts.Length() >= 2) {
    SString directory = parts.Join("/");
    if (IsDirectory(directory)) return directory;
    (void)parts.Pop();
  }
  return {};
}

// Warns the operator unless somebody did within the period. False when a due warning could not be recorded.
bool WarnOfLowSpace(SString const &path, double free) {
  SString const record = GetEnv("Brenthaven") + "/.LastSpaceWarning";
  long const now = time(nullptr);
  if (MapFileRead(record).AsLong() > now - kWarningPeriod) return true;
  SString const text = path + " = " + SString(static_cast<long>(free / kKilobyte)) + " KB";
  // A report that can't be written says so by its result; with the disk as full as this the mail is held back below.
  (void)ProcessError("LowDiskSpaceWarning", "DiskLimits", text, "Dispatch");
  SString const temporary = record + "." + ProcessIdString();
  if (MapFileWrite(temporary, SString(now)) && Rename(temporary, record)) return true;
  (void)RemoveFile(temporary);
  return false;
}

}  // namespace

unsigned long GetRemainingUsableKB(SString const &path, double needed) {
  SString const directory = ExistingDirectory(path);
  if (!directory.Defined()) return 0;
  double const minimum = MinimumFree();
  double const warningLevel = minimum * 10 + 100 * kKilobyte;
  double const free = FreeDiskSpace(directory);
  if (free < warningLevel + needed && !WarnOfLowSpace(path, free)) return 0;
  double const remaining = free - needed - minimum;
  return remaining > kKilobyte ? static_cast<unsigned long>(remaining / kKilobyte) : 0;
}
