// brenthaven/mime/japanese.h - Japanese text in mail: ISO-2022-JP (RFC 1468), and encoded words (RFC 2047).
//
// ISO-2022-JP is 7-bit text with escape sequences: ESC "$B" (in old mail "$@") opens characters of two bytes each,
// ESC "(B" (ASCII) and ESC "(J" (JIS-Roman) close them. A line begins and ends in ASCII.
#pragma once
#include <string_view>

#include "brenthaven/text/sstring.h"

// Whether two-byte text opens somewhere in the text.
bool HasJapaneseText(std::string_view text);

// Text of unknown origin as lines that may be declared charset=iso-2022-jp, 7bit (RFC 2045 section 2.7): 7-bit bytes,
// CR LF line ends, at most 998 bytes a line, and every escape sequence and character as RFC 1468 has them. Each line is
// read by itself, as ISO-2022-JP when it opens two-byte text, else as UTF-8, EUC-JP or ISO-8859-1, the first of them
// that it fits. What has no place in the result is a "?" each; a CR or LF by itself ends a line too, and doubled CR
// count as one. The last line is ended. Linear in the text.
SString ToIso2022Jp(SString const &text);

// A header field's value for people to read: encoded words =?charset?B?text?= and =?charset?Q?text?= (charset and
// letter in any case) are decoded and given in ISO-2022-JP, blanks between two of them dropped, line ends of a folded
// field dropped. A word that is broken, or in a charset that nobody here knows, stays as it is. Other bytes stay too.
SString DecodeEncodedWords(SString const &value);
