// brenthaven/accounts/access.h - whether a client may connect, by a list of hosts, domains and networks.
#pragma once
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// 1 when the client may connect. It is an address, in square brackets or not, or a host's name. The first pattern that
// holds lets it in, an empty list everyone, and when none holds the result is 0. Case does not matter. A pattern is
//
//   all, none      everyone, or nobody; wherever they stand they decide at once, and "all" before "none"
//   10.1.0.0/16    a network. 0 bits are everyone; a number that is none, is negative or above 32 counts as 32
//   10.1.0.0       a network too, by the bytes in front of its trailing zeros: here 10.1; 0.0.0.0 is everyone
//   example.org    a host, and all names below it
//
// What is needed beside the client is asked of the name service, once: the names of an address, and the addresses of a
// name. No answer is no match. A name found for an address is what the owner of the address says it is.
int AccessOK(SString const &client, SStringList const &patterns);
