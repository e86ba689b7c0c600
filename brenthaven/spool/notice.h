// brenthaven/spool/notice.h - the datagram that tells the dispatcher of a control file. Private to the spool.
#pragma once
#include "brenthaven/spool/control.h"

// A UDP port from its text: digits, a fraction is dropped first, then the range is tested. -1 when it is not in 1 to
// last.
int PortNumber(SString const &text, int last);

// "name LF key LF function LF type LF priority", with the key from the environment; undefined when there is no
// dispatcher to tell (no key), and when one of the fields holds an LF.
SString ComposeNotice(SControl const &control);
// 1 when the whole text went out.
int SendNotice(SString const &notice);
// One datagram to a port of this host; 1 when all of it went out.
int SendDatagram(int port, SString const &text);
