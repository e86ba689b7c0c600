// brenthaven/exploder/returnpath.h - a return path for each subscriber, so that a bounce names whose it is.
//
//   KEY+LIST+LOCAL=HOST@DOMAIN      4f1c02aa+news+jo=far.example@bounces.example.org
//
// LIST is the list's name in lower case, LOCAL and HOST are the subscriber's address, DOMAIN is a mail domain that is
// used for nothing else: LocalMailDomains has it, and the account with SMTP-Address "*@DOMAIN" and Handler-Delivery
// "List-Exploder" takes its mail. KEY is 8 hexadecimal characters that only we can make for the address, or anybody
// could have others unsubscribed by forged bounces. Relays may change the case of all of it.
#pragma once
#include "brenthaven/address/address821.h"
#include "brenthaven/text/sstring.h"

struct SReturnPath {
  SString listUID;
  SString subscriber;  // local@domain, in lower case
};

// Null for a list or an address that has no such path: a name with other characters than letters, digits, "-", "_" and
// ".", a local part that needs quoting, and what would be longer than the 64 bytes that RFC 5321 section 4.5.3.1.1
// allows a local part. The list's owner address is then the only one.
S821Address MakeReturnPath(SString const &listUID, SString const &listName, SString const &subscriber,
                           SString const &domain, SString const &secret);
// 1 when the address is a path that MakeReturnPath made for a list that exists, whatever the domain.
unsigned ReadReturnPath(S821Address const &address, SString const &secret, SReturnPath &path);
