#include "brenthaven/exploder/listheaders.h"

#include <algorithm>
#include <string_view>

#include "brenthaven/accounts/attributes.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kListId[] = "List-Id:";
constexpr char kListHelp[] = "List-Help:";
constexpr char kListUnsubscribe[] = "List-Unsubscribe:";
constexpr char kListUnsubscribePost[] = "List-Unsubscribe-Post:";
constexpr char kListSubscribe[] = "List-Subscribe:";
constexpr char kListPost[] = "List-Post:";
constexpr char kListOwner[] = "List-Owner:";

// What a posting does not take along: what another list said of itself, an owner's password, wishes that would have all
// readers answer, and a trace that delivery writes anew.
constexpr char const *kNotPassedOn[] = {kListId,
                                        kListHelp,
                                        kListUnsubscribe,
                                        kListUnsubscribePost,
                                        kListSubscribe,
                                        kListPost,
                                        kListOwner,
                                        "List-Archive:",
                                        "Approved:",
                                        "Approve:",
                                        "Return-Receipt-To:",
                                        "Disposition-Notification-To:",
                                        "X-Confirm-Reading-To:",
                                        "Return-Path:",
                                        kHeaderPrecedence};

constexpr char kReplyToList[] = "reply-to-list";
constexpr char kSubjectPrefix[] = "subject-prefix";
constexpr char kNoSubject[] = "(no subject)";

bool IsPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7f; });
}

SString OnOneLine(SString const &text, SString const &otherwise) {
  return text.Length() > 0 && IsPrintable(text.View()) ? text : otherwise;
}

// Characters that RFC 3986 section 2.3 leaves as they are; all others are encoded.
SString PercentEncoded(SString const &text) {
  constexpr std::string_view kPlain = "-._~";
  constexpr char kDigits[] = "0123456789ABCDEF";
  SString encoded;
  for (char const c : text.View()) {
    bool const isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    unsigned const byte = static_cast<unsigned char>(c);
    if (isLetter || kPlain.find(c) != std::string_view::npos)
      encoded += c;
    else
      encoded = encoded + '%' + kDigits[byte >> 4] + kDigits[byte & 15];
  }
  return encoded;
}

// An address that a setting gives, if it is one and would stand on one line.
SString Checked(SString const &address) {
  return IsMailAddress(address) && IsPrintable(address.View()) ? address : SString("");
}

SString MailTo(SString const &address, SString const &subject) {
  int const at = address.RIndex('@');
  SString const to = PercentEncoded(address.Segment(0, at)) + "@" + address.Segment(at + 1, address.Length());
  return "<mailto:" + to + (subject.Length() > 0 ? "?subject=" + PercentEncoded(subject) : SString("")) + ">";
}

bool IsClosed(SList const &list, int policy) { return list.GetString(policy).HasPrefix("closed"); }

// Nobody but approved posters may write to the list.
bool IsAnnounceOnly(SList const &list) {
  return list.Get(kAttrListPostingPolicy).Length() == 0 && IsClosed(list, kAttrListSubscriberPostingPolicy) &&
         IsClosed(list, kAttrListNonsubscriberPostingPolicy);
}

SString FieldKey(SString const &name) { return name[-1] == ':' ? name : name + ":"; }

void RemoveXFields(SHeader &header) {
  for (SString const &key : header.Keys())
    if (LowerCase(key).HasPrefix("x-")) header.Delete(key);
}

void Rewrite(SHeader &header, SStringList const &rewrites, SListNames const &names) {
  if (rewrites.Contains(kReplyToList) && names.address.Length() > 0) header[kHeaderReplyTo] = "<" + names.address + ">";
  SString const subject = header.Get(kHeaderSubject).Get(0);
  SString const prefix = "[" + names.name + "]";
  if (rewrites.Contains(kSubjectPrefix) && subject.Index(prefix) < 0)
    header[kHeaderSubject] = prefix + " " + (subject.Length() > 0 ? subject : SString(kNoSubject));
}

void AddField(SHeader &header, SString const &line) {
  if (!IsHeaderLine(line, static_cast<size_t>(line.Length()), true)) return;
  for (char const c : line.View())
    if ((c >= 0 && c < ' ' && c != '\t') || c == 0x7f) return;
  int const colon = line.Index(':');
  int value = colon + 1;
  while (line[value] == ' ' || line[value] == '\t') ++value;
  SString key = line.Segment(0, colon);
  while (key[-1] == ' ' || key[-1] == '\t') (void)key.Chop();
  header[key + ":"].Push(line.Segment(value, line.Length()));
}

// Words of a URL that are filled in.
constexpr char kListNameWord[] = "<+++ListName+++>";
constexpr char kListAddressWord[] = "<+++ListAddress+++>";
constexpr char kSubscriberWord[] = "<+++Subscriber+++>";
constexpr char kAuthKeyWord[] = "<+++AuthKey+++>";

void FillIn(SString &text, char const *word, SString const &value) {
  SStringList const pieces = text.SplitExact(word);
  if (pieces.Length() > 1) text = pieces.Join(PercentEncoded(value));
}

}  // namespace

SListNames::SListNames(SList const &list)
    : name(OnOneLine(list.GetName(), OnOneLine(list.GetUID(), "list"))),
      address(Checked(list.GetListAddress())),
      requestAddress(Checked(list.GetRequestAddress())),
      ownerAddress(Checked(list.GetOwnerAddress())) {
  SString const known = LowerCase(address.Length() > 0 ? address : name + "@" + GetEnv("DomainName"));
  for (char const c : known.View()) {
    bool const isPlain = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
    id += c == '@' ? '.' : isPlain ? c : '-';
  }
}

SUnsubscribeURL::SUnsubscribeURL(SString const &text) {
  bool const isURL = text.HasPrefix("https://") || text.HasPrefix("http://");
  if (!isURL || !IsPrintable(text.View())) return;
  SString filledIn = text;
  for (char const *word : {kListNameWord, kListAddressWord, kSubscriberWord, kAuthKeyWord}) FillIn(filledIn, word, "");
  if (filledIn.View().find_first_of(" ,\"<>") != std::string_view::npos) return;
  _text = text;
  _isPersonal = text.Index(kSubscriberWord) >= 0 || text.Index(kAuthKeyWord) >= 0;
}

SUnsubscribeURL SUnsubscribeURL::FromSettings() {
  Sdbfile settings("List-Manager", 0, kProductWord);
  return settings.Open("/Config", 0) ? SUnsubscribeURL(settings.Get("List-Unsubscribe-URL").Get(0)) : SUnsubscribeURL();
}

SString SUnsubscribeURL::For(SListNames const &names, SString const &subscriber, SString const &key) const {
  SString url = _text;
  FillIn(url, kListNameWord, names.name);
  FillIn(url, kListAddressWord, names.address);
  FillIn(url, kSubscriberWord, subscriber);
  FillIn(url, kAuthKeyWord, key);
  return url;
}

void DressHeader(SHeader &header, SList const &list, SListNames const &names) {
  if (list.GetString(kAttrListRemoveXHeaders) == "yes") RemoveXFields(header);
  for (char const *key : kNotPassedOn) header.Delete(key);
  AddListFields(header, list, names);
  for (SString const &name : list.Get(kAttrListHeadersToRemove)) header.Delete(FieldKey(name));
  Rewrite(header, list.Get(kAttrListOtherRewrites), names);
  for (SString const &line : list.Get(kAttrListHeadersToAdd)) AddField(header, line);
}

void AddListFields(SHeader &header, SList const &list, SListNames const &names) {
  header[kHeaderPrecedence] = "list";
  header[kListId] = "<" + names.id + ">";
  if (names.requestAddress.Length() > 0) {
    header[kListHelp] = MailTo(names.requestAddress, "help");
    header[kListUnsubscribe] = MailTo(names.requestAddress, "unsubscribe " + names.name);
    header[kListSubscribe] = MailTo(names.requestAddress, "subscribe " + names.name);
  }
  if (IsAnnounceOnly(list))
    header[kListPost] = "NO";
  else if (names.address.Length() > 0)
    header[kListPost] = MailTo(names.address, "");
  if (names.ownerAddress.Length() > 0) header[kListOwner] = MailTo(names.ownerAddress, "");
}

void AddUnsubscribeURL(SHeader &header, SString const &url, bool isOneClick) {
  SString const mail = header.Get(kListUnsubscribe).Get(0);
  if (mail.Length() == 0) return;
  header[kListUnsubscribe] = "<" + url + ">,\r\n\t" + mail;
  if (isOneClick) header[kListUnsubscribePost] = "List-Unsubscribe=One-Click";
}
