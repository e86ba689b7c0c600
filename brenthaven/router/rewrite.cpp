// Header rewriting, for mail that enters here from a local account: fields that the site wants or does not want, what a
// mail program left out (RFC 5322, section 3.6), and the poster's address in the form that the account asks for.
#include <algorithm>
#include <cerrno>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/address/parser822.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/router/settings.h"
#include "brenthaven/spool/keys.h"

namespace {

constexpr char kHeaderSection[] = "/Header";  // its list Delete, and below it the section "Add"
constexpr char kHeaderSender[] = "Sender:";

SString FieldKey(SString const &name) { return name[-1] == ':' ? name : name + ":"; }

// A text of an account in a header field: on one line, whatever it holds.
SString OnOneLine(SString const &text) {
  std::string bytes(text.View());
  std::replace_if(
      bytes.begin(), bytes.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; }, ' ');
  return SString(std::string_view(bytes));
}

SString WithBackslashes(SString const &text, std::string_view before) {
  SString escaped("");
  for (char const c : text.View()) {
    if (before.find(c) != std::string_view::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

// Whether a text may stand in a comment as it is: its parentheses come in pairs, which nest there.
bool IsCommentText(std::string_view text) {
  int depth = 0;
  for (char const c : text) {
    depth += (c == '(') - (c == ')');
    if (depth < 0 || c == '\\') return false;
  }
  return depth == 0;
}

SString AsComment(SString const &name) {
  return " (" + (IsCommentText(name.View()) ? name : WithBackslashes(name, "()\\")) + ")";
}

SString Joined(SHeader const &header, char const *field) { return header.Get(field).Join(", "); }

}  // namespace

// What the site wants of every header.
struct SSMTPRouterModule::HeaderRules {
  explicit HeaderRules(SString const &module) {
    Sdbfile settings(module, 0, kProductWord);
    if (!settings.Open(kHeaderSection, 0)) return;
    for (SString const &name : settings.Get("Delete"))
      if (name.Length() > 0) deletes.Push(FieldKey(name));
    if (settings.Open("Add", 0)) adds = ReadSection(settings);
  }
  void Apply(SHeader &header) const {
    for (SString const &field : deletes) header.Delete(field);
    for (SString const &name : adds.Keys())
      if (SStringList const values = adds.Get(name); values.Length() > 0) header[FieldKey(name)] = values;
  }
  SStringList deletes;
  SNamedStringList adds{1, 0};
};

// Whoever the message says has sent it, and the field that says so.
struct SSMTPRouterModule::Poster {
  Poster(SHeader const &header, SString const &userFrom) : field(kHeaderSender) {
    S822Parser parser(Joined(header, kHeaderSender));
    SStringList addresses = parser.Addresses();
    if (addresses.Length() == 0) {
      field = kHeaderFrom;
      parser.Set(Joined(header, kHeaderFrom));
      addresses = parser.Addresses();
      if (addresses.Length() != 1) {  // several authors, or nobody legible: the envelope tells who sent it
        field = kHeaderSender;
        parser.Set(S821Address(userFrom).Address());
      }
    }
    parser.Reset();
    address = parser.NextAddress();
  }
  char const *field;
  S822Address address;
};

int SSMTPRouterModule::RewriteHeader(S821Address const &sender) {
  switch (_CompleteHeader(sender)) {
    case HeaderStep::kDone:
      return 1;
    case HeaderStep::kUnreadable:
      return _FailHeader() ? 1 : 0;
    case HeaderStep::kNotDone:
      return 0;
  }
  return 0;
}

// Right behind the read that failed, whose error it tells.
unsigned int SSMTPRouterModule::_FailHeader() {
  return ProcessError(GetControl(), "HeaderReadFail", "RewriteHeader", SStringList(""));
}

// Everything that is set is set to the same again by a further run, so that a pass that a crash has cut off may be
// repeated on its own result.
SSMTPRouterModule::HeaderStep SSMTPRouterModule::_CompleteHeader(S821Address const &sender) {
  ClearReadFlags();
  SAccount account;
  if (!_FindSender(sender, account)) return SomeReadFailed() ? HeaderStep::kNotDone : HeaderStep::kDone;
  SControl &own = GetControl();
  SHeader header;
  errno = 0;
  if (!own.ReadHeader(&header) && FileSize(own.GetHeaderFilename()) != 0) return HeaderStep::kUnreadable;
  SString const before = header.Text();
  HeaderRules(GetModuleName()).Apply(header);
  _FillInMissing(header, sender);
  if (S821Address const address(account.GetString(kAttrSmtpAddress)); address.Get().Length() >= kShortestAddress)
    own[kKeyUserFrom] = kChannelWord + address.Get();
  _StylePoster(header);
  if (SomeReadFailed()) return HeaderStep::kNotDone;
  if (header.Text() == before) return HeaderStep::kDone;  // most mail is complete, and a write costs a flush
  return own.WriteHeader(&header) ? HeaderStep::kDone : HeaderStep::kNotDone;
}

bool SSMTPRouterModule::_FindSender(S821Address const &sender, SAccount &account) {
  SAccountReadScope const scope;
  SAccountDB accounts;
  return accounts.GetAccountInfo(accounts.GetAccountUID(sender), &account) != 0;
}

void SSMTPRouterModule::_FillInMissing(SHeader &header, S821Address const &sender) {
  SControl const &own = GetControl();
  auto const fillIn = [&header](char const *field, SString const &value) {
    if (header.Get(field).Length() == 0 && value.Length() > 0) header[field] = value;
  };
  fillIn(kHeaderDate, own.Get(kKeySubmittedDate).Get(0));
  fillIn(kHeaderMessageId, "<" + own.GetFilename() + ">");
  fillIn(kHeaderFrom, sender.Get());
}

void SSMTPRouterModule::_StylePoster(SHeader &header) {
  Poster poster(header, GetControl().Get(kKeyUserFrom).Get(0));
  if (SString const styled = _StyledAddress(poster); styled.Length() > 0) header[poster.field] = styled;
}

// The poster's address as the account's SMTP-RewriteStyle wants it; empty to leave it as it is.
SString SSMTPRouterModule::_StyledAddress(Poster const &poster) {
  S822Address address = poster.address;
  if (!address.IsValid()) return "";
  address.Domain() = GetHostAddrPart(address, 1);
  SAccount account;
  if (!_FindSender(address, account)) return "";
  SString const smtpAddress = OnOneLine(account.GetString(kAttrSmtpAddress));
  if (smtpAddress.Length() == 0) return "";
  SString const style = account.GetString(kAttrSmtpRewriteStyle);
  SString const name = OnOneLine(account.GetString(kAttrName));
  if (style == "comment") return smtpAddress + AsComment(name);
  if (style == "quoted") return "\"" + WithBackslashes(name, "\"\\") + "\" <" + smtpAddress + ">";
  return _canonicalize ? address.Address() : SString("");
}

void SSMTPRouterModule::_ExplainSender(SRouteObserver &observer) {
  SString const from = GetControl().Get(kKeyUserFrom).Get(0);
  S821Address sender(from);
  if (!sender.IsValid()) return;
  sender.Domain() = GetHostAddrPart(sender, 1);
  SAccount account;
  if (!_FindSender(sender, account)) return observer.Note(from, SRouteStep::kForeignSender, sender.Get());
  observer.Note(from, SRouteStep::kSenderAccount, account.GetUID());
  HeaderRules const rules(GetModuleName());
  for (SString const &field : rules.deletes) observer.Note(from, SRouteStep::kHeaderDelete, field);
  for (SString const &name : rules.adds.Keys())
    for (SString const &value : rules.adds.Get(name))
      observer.Note(from, SRouteStep::kHeaderAdd, FieldKey(name) + " " + value);
  SHeader header;
  header[kHeaderFrom] = sender.Get();
  Poster const poster(header, from);
  if (SString const styled = _StyledAddress(poster); styled.Length() > 0)
    observer.Note(from, SRouteStep::kHeaderPoster, poster.field + (" " + styled));
}
