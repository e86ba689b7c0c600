// brenthaven/accounts/passwords.h - the small digests and covers of the account store.
#pragma once
#include "brenthaven/text/sstring.h"

// The MD5 digest (RFC 1321) of the bytes, as 32 lower-case hexadecimal characters.
SString MD5(SString const &text);

// The same digest of the text and a secret of this build behind it (sitekeys.h): a key that only this installation can
// have made, such as those that answers to mailing lists are known by.
SString MD5Secret(SString const &text);

// A salted hash of a password, the form of the attribute Password:
//
//   offset  size  meaning
//   0       32    salt, hexadecimal
//   32      32    hash of salt and password, hexadecimal
//
// Two calls give two salts.
SString StringCopy(SString const &plain);

// 1 when the password is the one that the stored hash was made of. A stored text that is not 64 bytes long matches
// nothing. The time does not depend on how much of the hash agrees.
int StringComp(SString const &plain, SString const &stored);

// Hides a text from a casual look, and is no protection: every byte is combined with one fixed byte. With `undo` set
// the text is uncovered; one that would then begin with a control byte was never covered and comes back as it is.
SString Scramble(SString const &text, unsigned undo);
