// brenthaven/lists/slistkey.h - the keys by which an address confirms a request, and the record of keys mailed.
//
// A key proves that whoever sends it reads the mail of the address. Two forms:
//
//   short   8 hexadecimal characters of the MD5 of address, NUL, list UID, NUL, secret. Good for either request, and as
//           long as the secret stays, for the address in the case that it was asked for in.
//   dated   s|d|u, the day it was made (days since 1970, decimal), "-", 24 hexadecimal characters that cover address,
//           list, letter, day and secret, the address in any case: "s20781-0f3b1c...". The letter says what was asked
//           for: subscribe, subscribe to the digest, unsubscribe; so that the key alone can stand as the answer. Good
//           for that request until KeyDays days have passed.
#pragma once
#include <ctime>

#include "brenthaven/text/sstring.h"

enum class SListIntent { kSubscribe, kSubscribeDigest, kUnsubscribe };

// What a key is made for; the address as local@domain.
struct SListKeySubject {
  SString address;
  SString listUID;
};

SString MakeListKey(SListKeySubject const &subject, SString const &secret);
SString MakeDatedListKey(SListKeySubject const &subject, SListIntent intent, long day, SString const &secret);

// Whether a short key, or a dated one of this direction, is the subject's. validDays is how long dated ones hold; today
// counts days as MakeDatedListKey does, and a key of tomorrow is taken, since clocks differ. Comparing takes the same
// time wherever the texts differ.
bool IsListKey(SString const &key, SListKeySubject const &subject, bool unsubscribes, long today, int validDays,
               SString const &secret);
// What a dated key asks for, by its letter and without a check: 1 and the intent, or 0 for any other text. For whoever
// has only the key and needs to know the request that it confirms.
unsigned ReadListKeyIntent(SString const &key, SListIntent &intent);

long KeyDay(time_t now);  // days since 1970, UTC
int GetKeyDays();         // KeyDays in the settings of the list manager; 14 when it is unset; 0: keys are mailed short

// Key mails of the last hour, so that a flood of requests in someone's name fills nobody's mailbox: an address is
// mailed at most kKeyMailsPerHour times in any 60 minutes, by all lists and processes together. The record is the file
// List-Manager/keymails below the root, a list of digests of addresses and a parallel list of their times. It keeps
// kKeyMailAddresses addresses at most; beyond that those with the fewest mails go first.
inline constexpr int kKeyMailsPerHour = 10;
inline constexpr int kKeyMailAddresses = 1000;

enum class SKeyMailAnswer { kMail, kTooMany, kFailed };  // kFailed: the record can't be locked or written
SKeyMailAnswer RecordKeyMail(SString const &address, time_t now);
