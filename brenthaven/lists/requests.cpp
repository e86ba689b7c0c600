// The mail that goes with requests: templates filled in, and the list's own texts.
#include <string_view>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/accounts/special.h"
#include "brenthaven/lists/listtemplate.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kLineEnd[] = "\r\n";

}  // namespace

// Nobody answers mail that a program sends of itself, be it a mail server or a vacation program.
void SListActions::_MarkAutomatic(SSubmitter &submitter, SString const &from) {
  submitter.SetSender(from, 1);
  submitter.SetEnvelopeFrom(S821Address());
  submitter.AddHeader("Auto-Submitted:", "auto-generated");
}

SString SListActions::_GenerateRequest(SSubmitter &submitter, SString const &templateKey) const {
  SString const command = _direction == kSubscribe ? "subscribe" : "unsubscribe";
  SListTemplateValue const values[] = {
      {"Command", _digest ? command + " digest" : command},
      {"Subscriber", BareAddress(_address)},
      {"ListName", _list.GetName()},
      {"ListAddress", _list.GetListAddress()},
      {"AuthAddress", _list.GetRequestAddress()},
      {"AuthKey", _authKey},
      {"OwnerAddress", _list.GetOwnerAddress()},
  };
  SListTemplate const parts(ListTemplateText(templateKey));
  submitter.SetSubject(FillListTemplate(parts.subject.View(), values));
  return FillListTemplate(parts.body.View(), values);
}

void SListActions::_WriteRequest(SSubmitter &submitter, SString const &templateKey) const {
  _MarkAutomatic(submitter, _list.GetRequestAddress());
  submitter.SetMimeBody(PlainListBody(_GenerateRequest(submitter, templateKey)));
}

unsigned int SListActions::_MailSubscriber(SString const &templateKey) const {
  SSubmitter submitter(_module);
  _WriteRequest(submitter, templateKey);
  submitter.SetRecipientAddresses(SStringList(BareAddress(_address)));
  return _Send(submitter);
}

unsigned int SListActions::_MailOwners(SString const &templateKey) const {
  SSubmitter submitter(_module);
  _WriteRequest(submitter, templateKey);
  submitter.SetRecipientUIDs(_Owners());
  return _Send(submitter);
}

// A list that nobody owns is the postmaster's.
SStringList SListActions::_Owners() const {
  SStringList const owners = _list.Get(kAttrListOwners);
  return owners.Length() > 0 ? owners : SStringList(kPostmasterUID);
}

unsigned int SListActions::_Send(SSubmitter &submitter) const {
  SStringList error;
  if (submitter.Submit(&error)) return 1;
  LogError("Couldn't send mail of list " + _listUID + ": " + error.Join(" "));
  return 0;
}

void SListActions::_SendInfo() const { _SendText(_list.Get(kAttrListWelcomeInfo), "Welcome to " + _list.GetName()); }

void SListActions::_SendUnsubscribeInfo() const {
  _SendText(_list.Get(kAttrListUnsubscribeInfo), "Your " + _list.GetName() + " unsubscribe request");
}

void SListActions::_SendText(SStringList const &lines, SString const &subject) const {
  SString const text = lines.Join(kLineEnd) + kLineEnd;
  if (text.View().find_first_not_of(" \t\r\n\f\v") == std::string_view::npos) return;
  SSubmitter submitter(_module);
  _MarkAutomatic(submitter, _list.GetOwnerAddress());
  submitter.SetSubject(subject);
  submitter.SetMimeBody(PlainListBody(text));
  submitter.SetRecipientAddresses(SStringList(BareAddress(_address)));
  (void)_Send(submitter);  // the subscription stands without it; the log has the failure
}
