// brenthaven/accounts/storedpassword.h - the forms in which an account keeps its password: the value of Password.
//
//   64 hexadecimal characters   salt and MD5 hash (passwords.h), the scheme "md5"
//   $y$...                      crypt(3), yescrypt, the scheme "yescrypt"
//   $6$...                      crypt(3), SHA-512, the scheme "sha512"
//
// The crypt(3) forms cost milliseconds and memory on purpose, so that a stolen store is of little use. The system's
// library for them is loaded when the first of them is met. They take passwords of at most 511 bytes without a NUL.
#pragma once
#include "brenthaven/text/sstring.h"

// The password in the form of a scheme, with a new salt; empty or undefined means "md5". Undefined for a scheme that
// there is not, and for a password that the form can't take.
SString MakeStoredPassword(SString const &plain, SString const &scheme);

// Whether the password is the one that the stored value was made of; false for a value in no form above. Hashes are
// compared in constant time.
bool IsStoredPassword(SString const &plain, SString const &stored);

// The scheme of a stored value; undefined when it is in no form above.
SString SchemeOfStored(SString const &stored);
