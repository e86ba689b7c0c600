// What waits for the owners of a list: requests and postings.
#include <string_view>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/lists/listtexts.h"
#include "brenthaven/lists/section.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kQueueNoMail[] = "queue-no-mail";
constexpr char kQueueNotify[] = "queue-notify";
constexpr char kQueuePrefix[] = "queue-";
constexpr char kForwardPlain[] = "noqueue-fwd-nomime";
constexpr char kApprovedKey[] = "Approved:";
constexpr char kEditedSuffix[] = ".edited";
constexpr char kLineEnd[] = "\r\n";
constexpr unsigned long kDirectoryMode = 0770;

SString ApprovalDirectory() { return GetEnv("Brenthaven") + "/List-Exploder/approval/"; }

SString HeldPath(SString const &text) { return ApprovalDirectory() + text + kControlSuffix; }

// Whether the text of an approval record may be a message's name: it becomes part of paths.
bool IsHeldName(SString const &text) {
  return text.Length() > 0 && text.View().find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

// The place of one held message; -1 when it is not recorded. Postings that share an id have a record each.
int FindHeld(SListState const &state, SString const &id, SString const &text) {
  for (int i = 0; i < state.GetApproveMsgsCount(); ++i)
    if (state.GetApproveMsgId(i) == id && state.GetApproveMsgText(i) == text) return i;
  return -1;
}

bool Flush(std::initializer_list<SString> files, std::initializer_list<SString> parentsOf) {
  SSyncBarrier barrier;
  for (SString const &file : files) barrier.AddFile(file);
  for (SString const &path : parentsOf) barrier.AddParentOf(path);
  return barrier.Commit() != 0;
}

}  // namespace

unsigned int SListActions::RejectSubscription() {
  _direction = kSubscribe;
  return _Reject(listtexts::kSubscribeRejection);
}

unsigned int SListActions::RejectUnsubscription() {
  _direction = kUnsubscribe;
  return _Reject(listtexts::kUnsubscribeRejection);
}

// Told whether it waited or not: a list that keeps no queue asks its owners by mail alone.
unsigned int SListActions::_Reject(SString const &templateKey) {
  if (_listUID.Length() == 0 || !_address.IsValid()) return 0;
  SListState state(_listUID);
  if (!state.Read()) {
    LogError("Couldn't get list state for " + _listUID);
    return 0;
  }
  if (_direction == kSubscribe)
    (void)state.RemoveSubscribeRequest(_address);
  else
    (void)state.RemoveUnsubscribeRequest(_address);
  return state.Commit() && _MailSubscriber(templateKey);
}

unsigned int SListActions::_MailApprovalRequest(Section &section) {
  SString const method = _list.GetString(kAttrListModerationMethod);
  char const *const text = method == kQueueNotify ? listtexts::kApprovalHoldRequest : listtexts::kApprovalRequest;
  if (!(method == kQueueNoMail) && !_MailOwners(text)) return 0;
  if (!method.HasPrefix(kQueuePrefix)) return 1;
  SListState *const state = section.ReadState();
  if (state == nullptr) {
    LogError("Couldn't get list state for " + _listUID);
    return 0;
  }
  if (_direction == kSubscribe)
    (void)state->AddSubscribeRequest(_address, _digest);
  else
    (void)state->AddUnsubscribeRequest(_address);
  return section.CommitState();
}

bool SListActions::_Suppresses(SString const &notification) const {
  return _list.Get(kAttrListSuppressNotifications).Contains(notification);
}

void SListActions::_NotifyOverLimit() const {
  if (!_Suppresses(listtexts::kOverLimit)) (void)_MailOwners(listtexts::kOverLimit);  // refused in any case
}

// The record comes before the move: after a crash in between the message is still in control/, is taken for held once
// more, and nothing is lost.
int SListActions::Hold(SString const &id, SControl &control) {
  if (_listUID.Length() == 0) return kListNoSuchList;
  SString const text = control.GetFilename();
  SString const held = HeldPath(text);
  SListState state(_listUID);
  if (id.Length() == 0 || !IsHeldName(text) || !MakeDir(ApprovalDirectory(), kDirectoryMode) || !state.Read())
    return kListTempFail;
  bool const isNew = FindHeld(state, id, text) < 0;
  if (isNew) state.AddApproveMsg(id, text);
  SString const path = control.GetControlFilename();
  if (!control.Write() || !Flush({path, control.GetHeaderFilename(), control.GetBodyFilename()}, {path}) ||
      !state.Commit())
    return kListTempFail;
  if (Rename(path, held)) {
    (void)Flush({}, {held, path});  // until it is on disk a crash has the message held again
    return kListSuccess;
  }
  if (isNew && state.Read() && state.DeleteApproveMsg(FindHeld(state, id, text))) (void)state.Commit();
  return kListTempFail;
}

int SListActions::Moderate(SString const &id, unsigned int approve) {
  if (_listUID.Length() == 0) return kListNoSuchList;
  SListState state(_listUID);
  if (!state.Read()) return kListTempFail;
  int const place = state.FindApproveMsg(id);
  SString const text = state.GetApproveMsgText(place);
  if (place < 0 || !IsHeldName(text)) return kListMsgNotFound;
  SControl control(text);
  if (_module != nullptr) control.SetModule(_module);
  SString const held = HeldPath(text);
  if (FileExists(control.GetControlFilename()) || !Rename(held, control.GetControlFilename()) ||
      !Flush({}, {control.GetControlFilename(), held}))
    return kListTempFail;
  (void)RemoveDir(ApprovalDirectory());  // refused while others wait there
  if (!control.SField::Read()) return kListTempFail;
  if (!approve) {
    (void)control.RemoveMessage();  // a file that stays is no message without its control
  } else {
    control[kApprovedKey] = "yes";
    if (!control.Write() || !control.Notify()) return kListTempFail;
  }
  (void)state.DeleteApproveMsg(place);
  return state.Commit() ? kListSuccess : kListTempFail;
}

unsigned int SListActions::ForgetLost(SString const &id) {
  SListState state(_listUID);
  if (_listUID.Length() == 0 || !state.Read()) return 0;
  int const place = state.FindApproveMsg(id);
  SString const text = state.GetApproveMsgText(place);
  if (place < 0 || (IsHeldName(text) && FileExists(HeldPath(text)))) return 0;
  (void)state.DeleteApproveMsg(place);
  return state.Commit();
}

int SListActions::EditText(SString const &id, SStringList const &lines) {
  if (_listUID.Length() == 0) return kListNoSuchList;
  SListState state(_listUID);
  if (!state.Read()) return kListTempFail;
  SString const text = state.GetApproveMsgText(state.FindApproveMsg(id));
  if (state.FindApproveMsg(id) < 0 || !IsHeldName(text)) return kListMsgNotFound;
  SControl const control(text);
  SString const body = control.GetBodyFilename();
  if (!FileExists(body)) return kListMsgNotFound;
  SString const edited = body + kEditedSuffix;
  (void)RemoveFile(edited);  // left by a crash, if there is one
  if (!MapFileWrite(edited, lines.Join(kLineEnd) + kLineEnd)) return kListTempFail;
  if (Flush({edited}, {}) && Rename(edited, body)) return kListSuccess;
  (void)RemoveFile(edited);
  return kListTempFail;
}

SStringList SListActions::SendToModerators(SString const &id, SControl &control, SHeader &header) {
  if (_Suppresses(id) || (_Suppresses(listtexts::kOverLimit) && id.HasPrefix("OverGlobalLimit")) || _IsLocked())
    return SStringList();
  SString subject = header.Get(kHeaderSubject).Get(0);
  if (subject.Length() == 0) subject = "(no subject)";
  SStringList const owners = _list.Get(kAttrListOwners);
  if (owners.Length() == 0)
    return {"List-Exploder:NoModerators", "Owner account: " + _list.GetString(kAttrLinkedOwnerAccount)};
  SString const body = MapFileRead(control.GetBodyFilename());
  if (!body.Defined()) return {"List-Exploder:CantReadBody", "File: " + control.GetBodyFilename()};
  SSubmitter submitter(_module);
  _MarkAutomatic(submitter, _list.GetRequestAddress());
  submitter.SetRecipientUIDs(owners);
  return _SubmitPosting(submitter, id, subject, header.Text() + kLineEnd + body);
}

SStringList SListActions::_SubmitPosting(SSubmitter &submitter, SString const &id, SString const &subject,
                                         SString const &message) {
  SStringList error;
  if (_list.GetString(kAttrListModerationMethod) == kForwardPlain) {
    SMIME body;
    body.AddPart("text", "plain", "7bit", message);
    submitter.SetSubject("BOUNCE: " + subject);
    submitter.SetMimeBody(body);
    if (submitter.Submit(&error)) return SStringList();
    return {"List-Exploder:CantWriteBody", error.Join(" ")};
  }
  SMIME parts;
  parts.SetType("multipart", "mixed");
  parts.SetBoundary(CreateMIMEBoundary());
  parts.AddPart("text", "plain", "7bit", _GenerateRequest(submitter, id));
  parts.AddPart("message", "rfc822", "7bit", message);
  submitter.SetMimeBody(parts);
  return submitter.Submit(&error) ? SStringList() : error;
}
