// brenthaven/listmanager/requesttext.h - what a mail says: the lines in which commands may stand.
#pragma once
#include "brenthaven/spool/header.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

struct SRequestText {
  SString subject;    // one line, encoded words decoded, without "Re:" and the like in front
  SStringList lines;  // not blank, without their blanks at both ends
};

// Only the first kMaxRequestText bytes of a body are looked at. Of a multipart body the lines are those of its first
// part of text/plain, at any depth, base64 and quoted-printable decoded. A body that has none, such as HTML alone, has
// no lines. Left out are the lines that quote another mail ("> "), the one that introduces the quotation, and what
// stands below a signature's mark ("-- ") or a forwarding client's ("-----Original Message-----").
SRequestText ReadRequestText(SHeader const &header, SString const &body);

inline constexpr int kMaxRequestText = 1 << 20;
