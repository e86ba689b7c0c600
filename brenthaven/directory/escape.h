// brenthaven/directory/escape.h - other people's text inside the text forms of LDAP.
#pragma once
#include "brenthaven/text/sstring.h"

// Whether a text can be a directory's text: valid UTF-8 (RFC 3629) without a NUL byte.
bool IsDirectoryText(SString const &text);

// A value as it stands in a search filter (RFC 4515 section 3): "*", "(", ")", "\" and NUL as "\" and two hexadecimal
// digits, so that none of them is taken for the filter's own.
SString EscapeFilter(SString const &value);

// A value as it stands in a distinguished name (RFC 4514 section 2.4): "\" in front of what would end the value or be
// dropped from it.
SString EscapeDN(SString const &value);
