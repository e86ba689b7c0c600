#include "brenthaven/spool/errors.h"

#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/report.h"

namespace {

int g_next_error = 1;  // counts the free reports alone; a module counts its own

// Where a report comes from: the environment's module, whatever the location says.
SString OriginOf(SString const &location, SString const &module = SString()) {
  return (module.Length() > 0 ? module : GetEnv("ModuleName")) + ":" + location;
}

}  // namespace

void FillErrorReport(SControl &control, SErrorNumbers const &numbers, SString const &error, SString const &origin,
                     SStringList const &text) {
  control[kKeyFunction] = kModuleErrorHandler;
  control[kKeyError] = origin + " (" + error + ")";
  control[kKeyErrorText] = text;
  if (numbers.system != 0) control[kKeyErrorNumber] = SString(numbers.system);
  if (numbers.socket != 0) control[kKeySocketErrorNumber] = SString(numbers.socket);
}

void FillNewErrorReport(SControl &control, SErrorNumbers const &numbers, SString const &error, SString const &origin,
                        SStringList const &text) {
  control[kKeyControlType] = kTypeError;
  control[kKeyPriority] = kPriorityNew;
  FillErrorReport(control, numbers, error, origin, text);
}

SControl NewErrorControl(int &counter) {
  SControl control;
  control.PutFreeFilename(MessageIdDate() + "." + ProcessIdString() + "." + SString(counter++));
  return control;
}

int IsLoggedInstead(SControl const &control, SStringList const &text) {
  if (!control.Get(kKeyTrace).Contains(kModuleErrorHandler)) return 0;
  WriteLogLine(LogFileDate() + ":ProcessNotifyError:" + text.Join());
  return 1;
}

unsigned int ProcessError(SControl &control, SString const &error, SString const &location, SStringList const &text) {
  SErrorNumbers const numbers;
  FillErrorReport(control, numbers, error, OriginOf(location), text);
  if (!control.Write()) return 0;
  (void)control.Notify();  // the report is on file: a walk finds it
  return 1;
}

unsigned int ProcessError(SString const &error, SString const &location, SStringList const &text,
                          SString const &module) {
  SErrorNumbers const numbers;
  SControl control = NewErrorControl(g_next_error);
  FillNewErrorReport(control, numbers, error, OriginOf(location, module), text);
  if (!control.Write()) return 0;
  (void)control.Notify();
  return 1;
}

void ProcessNotifyError(SControl const &control, SString const &error, SString const &location,
                        SStringList const &text) {
  SErrorNumbers const numbers;
  if (IsLoggedInstead(control, text)) return;
  SControl report = NewErrorControl(g_next_error);
  FillNewErrorReport(report, numbers, error, OriginOf(location), text);
  if (!report.Write()) WriteLog(report.Text() + "\n");
  (void)report.Notify();
}
