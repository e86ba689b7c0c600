// brenthaven/accounts/directorysettings.h - how directories are asked, wherever they are asked from.
#pragma once
#include "brenthaven/directory/ldap.h"

// The time-out and the authorities that MTA-Accounts names (DirectoryTimeout in seconds, 10 where it is absent or not
// above 0; DirectoryAuthorities), read at each call.
SLdapOptions ReadDirectoryOptions();

// Whether a password may go to Active Directory in clear text when it offers nothing better (AllowClearTextBind "yes").
bool MaySendClearText();
