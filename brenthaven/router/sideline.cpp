// What becomes of a sidelined message, and the log lines of the judge.
#include "brenthaven/router/sideline.h"

#include <cerrno>
#include <iterator>

#include "brenthaven/platform/dates.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/returned.h"

namespace {

constexpr char kError[] = "SideLined";
constexpr char kLocation[] = "ProcessMailAllError";

// By rule and event.
struct Text {
  char const *reason;
  char const *logged = reason;
};
constexpr Text kTexts[] = {
    {"MAIL FROM <> Sidelining"},
    {"No Domain Name Sidelining"},
    {"illegal domain name, Sidelining"},
    {"Host name lookup fail, Sidelining"},
    {"Host name MX lookup fail, Sidelining", "Host name lookup fail(MX), Sidelining"},
    {"Host name is IP Address, Sidelining"},
    {"RBL true, Sidelining"},
    {"number of recipients, Sidelining"},
    {"number of recipients in one tcp connection, Sidelining"},
    {"detail filter check, Sidelining"},
    {"cmsg read header error"},
    {"cmsg read body error"},
    {"failed to contact error handler (2 min timeout?)."},
    {"SideLine Error. Status is not success."},
    {"Sideline Message Delete"},
    {"Sideline Message Return"},
};
static_assert(std::size(kTexts) == kSidelineCodes);

// The envelope sender in its usual form, for whoever takes over the message. The null sender and what is no address
// stay as they came.
void RecordSender(SControl &control) {
  S821Address const sender(control.Get(kKeyUserFrom).Get(0));
  if (sender.IsValid()) control[kKeyUserFrom] = kChannelPrefix + sender.Get();
}

// A program's message has no sender who would want it back, and programs that return mail to each other never end
// (RFC 3834 section 2).
bool IsAutomatic(SControl &control) {
  SHeader header;
  SString const word = control.ReadHeader(&header) ? header.Get(kHeaderAutoSubmitted).Get(0) : SString();
  return word.Length() > 0 && LowerCase(word) != "no";
}

// Whether the message may go now: its sender is told, or nobody is to be.
bool SendBack(SModule &module, SControl &control) {
  if (IsAutomatic(control) && !IsReport(control)) return false;
  SReturnReasons reasons;
  reasons.lines = control.Get(kKeyErrorText);
  SStringList error;
  SReturned const returned = ReturnMessage(module, control, reasons, &error);
  if (returned == SReturned::kSent) {
    LogSideline(module.GetModuleName(), kSidelineReturned, control.GetFilename());
    control[kKeyErrorReported] = RFC822Date();
  }
  if (returned != SReturned::kFailed) return true;
  SMessageContent body;
  if (!control.ReadBody(body)) LogSideline(module.GetModuleName(), kSidelineBodyError, control.GetFilename());
  LogSideline(module.GetModuleName(), kSidelineReturnError, error.Join(" "));
  return false;
}

unsigned int Hold(SModule &module, SControl &control, SString const &reason) {
  MarkAsError(module, control, kError, kLocation, reason);
  if (HoldMessage(module, control, kSidelinePlace)) return 1;
  LogSideline(module.GetModuleName(), kSidelineHoldError, control.GetFilename());
  return 0;
}

unsigned int CarryOut(SModule &module, SControl &control, SString const &action, SString const &reason) {
  RecordSender(control);
  if (control.Get(kKeyErrorReported).Length() > 0) return DropMessage(module, control);
  if (action == kActionDelete) {
    LogSideline(module.GetModuleName(), kSidelineDeleted, control.GetFilename());
    return DropMessage(module, control);
  }
  control[kKeyErrorText] = reason;
  if (action == kActionReturn && SendBack(module, control)) return DropMessage(module, control);
  return Hold(module, control, reason);
}

}  // namespace

unsigned int SSidelineJudge::Sideline(SModule &module, SSidelineAction const &action, SString const &reason) {
  SControl &control = module.GetControl();
  SControl const before = control;
  if (CarryOut(module, control, action.action, reason)) return 1;
  SStringList const reported = control.Get(kKeyErrorReported);
  control = before;  // the frame lets the message wait as it came, and not as half a record
  if (reported.Length() > 0) control[kKeyErrorReported] = reported;  // all that is left is to remove it
  return 0;
}

char const *SidelineReason(SSidelineRule rule) { return kTexts[rule].reason; }

void LogSideline(SString const &module, int code, SString const &detail) {
  int const error = errno;
  LogRouterLine(module, SString(kTexts[code].logged) + "( " + " ) " + detail);
  errno = error;
}
