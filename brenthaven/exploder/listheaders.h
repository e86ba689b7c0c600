// brenthaven/exploder/listheaders.h - the header of what a list sends.
#pragma once
#include "brenthaven/lists/slist.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// What a list is known by outside.
struct SListNames {
  explicit SListNames(SList const &list);

  SString name;     // List-Name in one line of printable ASCII, else the UID in such a form
  SString address;  // local@domain each; empty where there is none
  SString requestAddress;
  SString ownerAddress;
  SString id;  // what stands in the brackets of List-Id:, RFC 2919: "news.example.org"
};

// How a reader may leave by a web page: List-Unsubscribe-URL of the list manager's settings. The words ListName,
// ListAddress, Subscriber and AuthKey in "<+++" and "+++>" are filled in, percent-encoded. One of the latter two makes
// it the reader's own, so that each gets a copy of the message for himself; without them RFC 8058 programs can't tell
// who leaves, but people can.
class SUnsubscribeURL {
public:
  SUnsubscribeURL() = default;  // none
  // Kept only when it is one line of a URL without blanks, brackets or commas.
  explicit SUnsubscribeURL(SString const &text);
  static SUnsubscribeURL FromSettings();

  bool IsSet() const { return _text.Length() > 0; }
  bool IsPersonal() const { return _isPersonal; }
  bool IsOneClick() const { return _text.HasPrefix("https://"); }
  SString For(SListNames const &names, SString const &subscriber, SString const &key) const;

private:
  SString _text;
  bool _isPersonal = false;
};

// Turns the header of a posting into that of the list's copy:
//
//   removed   List-Headers-To-Remove (names, with or without ":"), X- fields where List-Remove-X-Headers is "yes", the
//             fields of RFC 2369, RFC 2919 and RFC 8058 that came with it, Approved: (it may hold a password), requests
//             for receipts, Return-Path:
//   set       Precedence: list, and the fields below
//   changed   by words of List-Other-Rewrites: "reply-to-list" sets Reply-To: to the list, "subject-prefix" puts
//             "[name] " in front of the subject unless it has it
//   added     List-Headers-To-Add ("Name: value"); one that is no field on one line is left out
//
// A field that a setting removes is not set either.
void DressHeader(SHeader &header, SList const &list, SListNames const &names);
// The fields of RFC 2369 and RFC 2919 alone, for a message that is the list's own; List-Unsubscribe: without a URL.
void AddListFields(SHeader &header, SList const &list, SListNames const &names);
// Puts the URL in front of what List-Unsubscribe: has, and the field of RFC 8058 below it where it is one for one
// click. Nothing where the header has no List-Unsubscribe:, which the list's settings have removed then.
void AddUnsubscribeURL(SHeader &header, SString const &url, bool isOneClick);
