// brenthaven/accounts/systemlogon.h - the operating system's own passwords.
#pragma once
#include "brenthaven/text/sstring.h"

// Whether the system lets the user in with the password: PAM's service "brenthaven", whose file decides what that
// means, both its "auth" and its "account" part. PamDirectory of the environment names a directory in which the
// service's file stands; without it PAM looks where it always does. The library is loaded by the first call.
//
// A logon id is "user", or "DOMAIN\user" for services that know domains; the domain "." is this machine, and is not
// shown to the service. False without asking for an empty user or password, for a NUL byte in one of them, and for a
// password of 512 bytes or more, which no PAM module takes. The service may ask for one password, once: one that wants
// a second secret refuses.
bool SystemLogon(SString const &logonId, SString const &password);
