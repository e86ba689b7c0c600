// brenthaven/net/nameservers.h - which name servers this machine uses.
#pragma once
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// Dotted quads in the order of asking, each once: the value NameServer under SOFTWARE\tqx in the registry, split at
// blanks, the resolver's configuration, what DHCP told; "127.0.0.1" when nothing names one.
SStringList GetNameServers();

// The IPv4 addresses of the "nameserver" lines of a resolver configuration; queries are not sent over IPv6.
SStringList ParseResolverConfiguration(SString const &text);
