#include "brenthaven/listmanager/reply.h"

#include <algorithm>

#include "brenthaven/lists/listtemplate.h"
#include "brenthaven/lists/listtexts.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/submitter.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kLineEnd[] = "\r\n";

// The text for an outcome of this command, or else of any.
SString OutcomeText(SListOutcome const &outcome) {
  SString const own = ListTemplateText(outcome.verb + "-" + outcome.key);
  return own.Length() > 0 ? own : ListTemplateText(outcome.key);
}

SString Told(SListOutcome const &outcome, SString const &from) {
  SListTemplateValue const values[] = {
      {"Command", outcome.shown},
      {"Subscriber", outcome.subscriber},
      {"ListName", outcome.list},
      {"ListAddress", outcome.found.GetListAddress()},
      {"OwnerAddress", outcome.found.GetOwnerAddress()},
      {"AuthAddress", from},
  };
  SString text(kLineEnd);
  if (outcome.shown.Length() > 0) text += "> " + outcome.shown + kLineEnd;
  text += outcome.key + ": " + FillListTemplate(OutcomeText(outcome).View(), values);
  if (text[-1] != '\n') text += kLineEnd;
  for (SString const &line : outcome.lines) text += line + kLineEnd;
  return text;
}

// The ids of other mail that a header field may repeat: one line without control characters.
bool IsMessageId(SString const &id) {
  return id[0] == '<' && id[-1] == '>' &&
         std::all_of(id.View().begin(), id.View().end(), [](char c) { return c > ' ' && c <= '~'; });
}

}  // namespace

unsigned int SendListAnswer(SModule &module, SHeader const &request, SListAnswer const &answer) {
  SListTemplateValue const values[] = {{"AuthAddress", answer.from}};
  SListTemplate const head(ListTemplateText(listtexts::kAnswer));
  SString text = FillListTemplate(head.body.View(), values);
  bool isHelp = false;
  for (SListOutcome const &outcome : answer.outcomes) {
    text += Told(outcome, answer.from);
    isHelp = isHelp || outcome.verb == ListVerbName(SListVerb::kHelp);
  }
  if (!isHelp) text += FillListTemplate(ListTemplateText(listtexts::kAnswerEnd).View(), values);

  SSubmitter submitter(&module);
  submitter.SetSender(answer.from, 1);
  submitter.SetEnvelopeFrom(S821Address());
  submitter.AddHeader("Auto-Submitted:", "auto-replied");
  if (SString const id = request.Get(kHeaderMessageId).Get(0); IsMessageId(id)) {
    submitter.AddHeader("In-Reply-To:", id);
    submitter.AddHeader("References:", id);
  }
  submitter.SetSubject(FillListTemplate(head.subject.View(), values));
  submitter.SetMimeBody(PlainListBody(text));
  submitter.SetRecipientAddresses(SStringList(answer.to.Get()));
  SStringList error;
  if (submitter.Submit(&error)) return 1;
  WriteLogLine(LogFileDate() + ":" + module.GetModuleName() + ":ERROR:Couldn't answer " + BareAddress(answer.to) +
               ": " + error.Join(" "));
  return 0;
}
