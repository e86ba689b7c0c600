// brenthaven/net/dns.h - mail hosts: MX records by a DNS client of our own (RFC 1035, over UDP), addresses and names by
// the system's resolver, and the forms of host names.
#pragma once
#include "brenthaven/address/address821.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

enum MxCode {
  kMxFailed = 0,  // no socket, a send failed, a server's refusal, or a host lookup failed hard
  kMxFound = 1,
  kMxNoName = 2,     // the name does not exist
  kMxNoReply = 3,    // no usable reply after all tries
  kMxNoRecords = 4,  // the name has no MX record
};

// Exchanges of a domain, one line an address: preference as five digits, blank, name, blank, address in square
// brackets; by ascending preference, and in the order of the answer within one. An exchange without an address has no
// line.
//
// Asked are InternalMxServerIP and then ExternalMxServerIP of the environment when either is set, else the name servers
// of this machine in turn: NameServer in the registry under SOFTWARE\tqx, then the resolver's configuration, then what
// DHCP told, and 127.0.0.1 when there is none. One server can block for 10 times 5 seconds. With DnsStrict "yes" in the
// environment only the asked server is heard, its reply must repeat the question, and a name with a label over 63 bytes
// or over 255 bytes in all is not sent (kMxFailed).
int MxQuery(SString const &name, SStringList *result);
int _DoMxQuery(SString const &server, SString const &name, SStringList *result);

enum HostByNameCode { kHostFound = 0, kHostNotFound = 1, kHostNoAddress = 2, kHostLookupFailed = 3 };
// IPv4 addresses of a host, 30 at most. A dotted quad, also in brackets, is its own address, without a lookup.
int GetHostByName(SString const &name, SStringList *addresses);
SStringList GetHostByName(SString const &name);

enum HostByAddrCode { kNameFound = 0, kNameNotFound = 1, kNameLookupFailed = 3, kNameNotAnAddress = 4 };
// Names of a dotted quad, also in brackets: the best name first, then the official name and up to 30 aliases.
int GetHostByAddr(SString address, SStringList *names);
SStringList GetHostByAddr(SString address);

// A host as this site writes it, without any network: "localhost" in the local domain is HostName, a name with a dot
// stays, a bare name becomes the element of SubDomains that begins with it, or gets DomainName.
SString CanonicalizeHostName(SString name);
// The same; a dotted quad in brackets stays as it is, or becomes its first name with resolve.
SString CanonicalizeHost(SString host, unsigned int resolve);
// The domain of an address in that form; DefaultDomain, or else HostName, when it has none.
SString GetHostAddrPart(S821Address const &address, unsigned int resolve);

// One address for a host: a text with a dotted quad is returned as it stands, else the best exchange's address, else,
// unless noAddressFallback is set, the host's own. Undefined without any.
SString GetRecord(SString host, unsigned int noAddressFallback);

// 1 when a block list names the host; answer is then the list's address code. A failed lookup counts as not listed.
// Without a zone it is DefaultBlockListZone of the environment, and without that no host is listed.
unsigned int PortableRBLCheck(SString host, SString zone, SString &answer);
unsigned int PortableRBLCheck(SString host, SString zone);

// The machine's host name in a domain; as the system has it when the domain is empty.
SString GetLocalHostName(SString const &domain);
