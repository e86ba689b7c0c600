#include "brenthaven/exploder/dailybase.h"

#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/pickle.h"
#include "brenthaven/text/base.h"

namespace {

constexpr unsigned long kDirectoryMode = 0770;

int DayNumber(time_t now) {
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) return 0;
  return (local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday;
}

}  // namespace

SDailyCounts CountsOfToday(SString const &listUID, SListState const &state, time_t now) {
  if (!IsSafeUID(listUID)) return {};
  SString const directory = GetEnv("Brenthaven") + "/List-Exploder/daily/";
  SString const path = directory + listUID;
  SPickleFile file(path);
  if (!file.Lock() && !(MakeDir(directory, kDirectoryMode) && file.Lock())) return {};
  if (!file.Read()) return {};
  int const day = file.GetInt();
  SDailyCounts base = {file.GetInt(), file.GetInt()};
  SDailyCounts const totals = {state.GetTotalMessages(), state.GetTotalKbytes()};
  bool const isOfToday = file.WasExact() && day == DayNumber(now) && base.messages >= 0 && base.kbytes >= 0;
  bool const wasCleared = totals.messages < base.messages || totals.kbytes < base.kbytes;
  if (!isOfToday || wasCleared) {  // what was counted since a clearing is all of today
    base = isOfToday ? SDailyCounts() : totals;
    file.Clear();
    for (int const value : {DayNumber(now), base.messages, base.kbytes}) file.PutInt(value);
    (void)RemoveFile(path + ".new");  // left by a crash; nobody else's while the lock is ours
    (void)file.Write();               // unwritten, the next posting finds a base that is a little later
  }
  return {totals.messages - base.messages, totals.kbytes - base.kbytes};
}
