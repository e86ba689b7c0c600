#include "brenthaven/lists/sbouncefilter.h"

#include <algorithm>
#include <string_view>

#include "brenthaven/address/parser822.h"
#include "brenthaven/lists/slist.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/log.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kListExploderModule[] = "List-Exploder";
constexpr char kEndOfGroup[] = "end";
constexpr int kNullAddressLength = 2;  // "<>"
constexpr unsigned int kForced = 1;

SStringList Setting(char const *key) {
  Sdbfile settings(kListExploderModule, 0, kProductWord);
  return settings.Open("Config", 0) ? settings.Get(key) : SStringList();
}

SString FieldKey(SString const &name) { return name.View().ends_with(':') ? name : name + ":"; }

// Programs that answer mail: what answers to an answer goes on for ever.
constexpr std::string_view kPrograms[] = {"autoanswer", "echo",      "listserv",    "mailerdaemon", "mailer-daemon",
                                          "mirror",     "netserv",   "server",      "uucp",         "mailer",
                                          "listproc",   "majordomo", "list.manager"};

}  // namespace

SBounceFilter::SBounceFilter(SModule *module) : _module(module) {
  for (SString const &value : Setting("BounceFilter")) {
    SStringList const words = value.SplitExact(" ", 2);
    if (words.Length() < 2) continue;
    _patterns.emplace_back(FieldKey(words.Get(0)), words.Get(1));
    if (!_patterns.back().pattern.OK()) _patterns.pop_back();  // told on the error stream; nothing could match it
  }
}

void SBounceFilter::_LogInfo(SString const &text) const {
  SString const name = _module != nullptr ? _module->GetModuleName() : GetEnv("ModuleName");
  WriteLogLine(LogFileDate() + ":" + name + ":Info: " + text);
}

unsigned int SBounceFilter::CheckHeader(SHeader &header) {
  for (HeaderPattern const &row : _patterns)
    for (SString const &value : header.Get(row.field))
      if (value.HasMatch(row.pattern)) return 1;
  return 0;
}

unsigned int SBounceFilter::CheckPatterns(SControl &control, SHeader &header) {
  if (!_rewritesLoaded) _rewrites = Setting("BounceRewrites");
  _rewritesLoaded = true;
  SStringList group;
  for (SString const &command : _rewrites) {
    if (!(command == kEndOfGroup)) {
      group.Push(command);
      continue;
    }
    if (CheckPattern(control, header, group)) return 1;
    group.Reset();
  }
  return group.Length() > 0 && CheckPattern(control, header, group);  // the last "end" was forgotten
}

unsigned int SBounceFilter::CheckPattern(SControl &control, SHeader &header, SStringList group) {
  SString pattern;
  bool found = false;
  for (SString const &command : group) {
    SStringList const words = command.SplitExact(" ", command[0] == 'h' ? 3 : 2);
    switch (command[0]) {
      case 'h':
        if (!header.Get(FieldKey(words.Get(1))).Get(0).HasMatch(words.Get(2))) return 0;
        break;
      case 'm':
        pattern = words.Get(1);
        break;
      case 'r': {
        SString text = MapFileRead(control.GetBodyFilename()).M(pattern).Get(0);
        (void)text.S(pattern, words.Get(1));
        if (text.Length() == 0 || !_TakeAddress(header, text)) return 0;
        found = true;
        break;
      }
      default:
        break;
    }
  }
  return found;
}

// From what the message says to an address: "host!user" is read the way UUCP wrote it, and a bare name is taken for one
// of the machine that sent the bounce.
bool SBounceFilter::_TakeAddress(SHeader &header, SString text) {
  if (text.Index('!') >= 0) {
    SStringList const parts = text.SplitExact("!", 2);
    text = parts.Get(1) + "@" + parts.Get(0);
  }
  if (text.Index('@') < 0) {
    SString const domain = S822Parser(header.Get(kHeaderFrom).Get(0)).NextAddress().Domain();
    if (domain.Length() == 0) return false;
    text += "@" + domain;
  }
  _address = text;
  return true;
}

int SBounceFilter::FilterBounce(SControl &control, SHeader &header, SListState &state) {
  S821Address const sender(control.Get(kKeyUserFrom).Get(0));
  if (sender.Get().Length() > kNullAddressLength && !CheckHeader(header)) return kBounceNot;
  _LogInfo("Rejecting bounce message");
  if (!CheckPatterns(control, header)) return kBounceUncounted;
  return CountBounce(_address, state);
}

int SBounceFilter::CountBounce(SString const &address, SListState &state) {
  _address = address;
  _LogInfo("Bounce address is \"" + address + "\"");
  SString const uid = SListDB().GetSubscriberUID(S821Address(address));
  if (uid.Length() == 0 || !state.Read()) return kBounceUncounted;
  long const limit = GetEnv("MaxBounceCount").AsLong();
  if (limit <= 0) return kBounceCounted;
  int const user = state.GetUserNum(address);
  int const count = state.IncrBounceCount(user);
  if (count < limit) {
    _LogInfo(address + ": bounce count = " + SString(count));
    (void)state.Commit();  // a count that could not be written is made up for by the next bounce
    return kBounceCounted;
  }
  state.ResetBounceCount(user);
  if (!state.Commit() || !_UnsubscribeAll(uid, address)) return kBounceUncounted;
  _LogInfo(address + ": unsubscribed");
  return kBounceCounted;
}

bool SBounceFilter::_UnsubscribeAll(SString const &uid, SString const &address) {
  for (SString const &listUID : SListDB().GetSubscribedListUIDs(uid)) {
    int const result = SListActions(_module, listUID, S821Address(address)).Unsubscribe(kForced);
    if (result == kListSuccess) continue;
    _LogInfo(address + ": can't unsubscribe: " + SListActions::GetErrorKey(result));
    return false;
  }
  return true;
}

int NoReply(S821Address const &address, SHeader const &header) {
  SString const local = LowerCase(address.LocalPart());
  if (std::find(std::begin(kPrograms), std::end(kPrograms), local.View()) != std::end(kPrograms)) return 1;
  if (local.View().ends_with("-request") || local.HasPrefix("owner-")) return 1;
  if (header.Get("Auto-Forwarded:").Length() > 0) return 1;
  for (SString const &value : header.Get(kHeaderPrecedence)) {
    SString const precedence = LowerCase(value);
    if (precedence.Index("bulk") >= 0 || precedence.Index("junk") >= 0) return 1;
  }
  return 0;
}
