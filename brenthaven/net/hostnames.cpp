// Addresses and names of hosts by the system's resolver, and the forms of host names: the rest of dns.h.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "brenthaven/address/parser821.h"
#include "brenthaven/net/dns.h"
#include "brenthaven/net/dottedquad.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kMostAddresses = 30;
constexpr int kMostAliases = 30;
constexpr int kShortestQuad = 7;  // "0.0.0.0"
constexpr int kHostNameLength = 108;
constexpr char kDefaultBlockList[] = "DefaultBlockListZone";  // environment: the zone is for each site to choose

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
constexpr std::string_view kBrackets = "[]";

SString Without(std::string_view unwanted, SString const &text) {
  SString result("");
  for (char c : text.View())
    if (unwanted.find(c) == std::string_view::npos) result += c;
  return result;
}

// The text with one bracket taken off each end where there is one.
std::string_view InnerText(SString const &text) {
  std::string_view inner = text.View();
  if (inner.starts_with('[')) inner.remove_prefix(1);
  if (inner.ends_with(']')) inner.remove_suffix(1);
  return inner;
}

SString FirstLabel(SString const &name) { return name.SplitExact(".", 2).Get(0); }

// The name and its domain as one host name.
SString InDomain(SString const &name, SString const &domain) { return name + "." + domain; }

// The longest of the names of a host that begins like its official name: the one most likely to be complete.
SString BestName(SString const &official, SStringList const &aliases) {
  SString const label = FirstLabel(official);
  SString best = official;
  for (SString const &alias : aliases)
    if (alias.Index(label) >= 0 && alias.Length() > best.Length()) best = alias;
  return best;
}

// The quad that stands in brackets somewhere in a host; empty without one.
std::string_view BracketedQuad(SString const &host) {
  std::string_view text = host.View();
  for (size_t open = text.find('['); open != std::string_view::npos; open = text.find('[', open + 1)) {
    size_t const close = text.find(']', open);
    if (close == std::string_view::npos) return {};
    std::string_view const inner = text.substr(open + 1, close - open - 1);
    if (IsDottedQuad(inner)) return inner;
  }
  return {};
}

}  // namespace

int GetHostByName(SString const &name, SStringList *addresses) {
  addresses->Undef();
  if (name.Length() == 0 || name.Index('\0') >= 0) return kHostNotFound;
  if (SString const quad(InnerText(name)); IsDottedQuad(quad.View()) && inet_addr(quad) != INADDR_NONE) {
    (void)addresses->Push(quad);
    return kHostFound;
  }
  struct hostent const *const host = gethostbyname(name);
  if (host == nullptr) {
    if (h_errno == HOST_NOT_FOUND) return kHostNotFound;
    return h_errno == NO_DATA ? kHostNoAddress : kHostLookupFailed;
  }
  for (int i = 0; i < kMostAddresses && host->h_addr_list[i] != nullptr; ++i) {
    char quad[INET_ADDRSTRLEN];
    (void)addresses->Push(inet_ntop(AF_INET, host->h_addr_list[i], quad, sizeof quad));
  }
  return kHostFound;
}

SStringList GetHostByName(SString const &name) {
  SStringList addresses;
  (void)GetHostByName(name, &addresses);  // no address and no answer are alike here
  return addresses;
}

int GetHostByAddr(SString address, SStringList *names) {
  names->Undef();
  if (address.Length() < kShortestQuad) return kNameNotAnAddress;
  SString const quad(InnerText(Without(kWhiteSpace, address)));
  if (!IsDottedQuad(quad.View())) return kNameNotAnAddress;
  struct in_addr bytes = {inet_addr(quad)};
  if (bytes.s_addr == INADDR_NONE) return kNameNotFound;  // a number above 255: nobody has that name
  struct hostent const *const host = gethostbyaddr(&bytes, sizeof bytes, AF_INET);
  if (host == nullptr) return h_errno == HOST_NOT_FOUND ? kNameNotFound : kNameLookupFailed;
  SString const official = host->h_name;
  if (!IsValidDomain(official)) return kNameNotFound;
  SStringList aliases;
  for (int i = 0; i < kMostAliases && host->h_aliases[i] != nullptr; ++i) (void)aliases.Push(host->h_aliases[i]);
  SString const head = CanonicalizeHostName(BestName(official, aliases));
  if (IsValidDomain(head)) (void)names->Push(head);
  (void)names->Push(official);
  (void)names->Push(aliases);
  return kNameFound;
}

SStringList GetHostByAddr(SString address) {
  SStringList names;
  (void)GetHostByAddr(address, &names);  // no name and no answer are alike here
  return names;
}

SString CanonicalizeHostName(SString name) {
  SString const domain = GetEnv("DomainName");
  SString const lower = LowerCase(name);
  if (lower == "localhost" || lower == LowerCase(InDomain("localhost", domain))) return GetEnv("HostName");
  if (name.Index('.') >= 0) return name;
  for (SString const &element : GetEnv("SubDomains").SplitExact(","))
    if (FirstLabel(element).CompareNoCase(name) == 1) return element;
  return InDomain(name, domain);
}

SString CanonicalizeHost(SString host, unsigned int resolve) {
  if (std::string_view const quad = BracketedQuad(host); !quad.empty()) {
    SString const name = resolve ? GetHostByAddr(SString(quad)).Get(0) : SString();
    if (name.Length() == 0) return host;
    host = name;
  }
  return CanonicalizeHostName(host);
}

SString GetHostAddrPart(S821Address const &address, unsigned int resolve) {
  SString const domain = address.Domain();
  if (domain.Length() > 0) return CanonicalizeHost(domain, resolve);
  SString const fallback = GetEnv("DefaultDomain");
  return fallback.Length() > 0 ? fallback : GetEnv("HostName");
}

SString GetRecord(SString host, unsigned int noAddressFallback) {
  if (!FindDottedQuad(host.View()).empty()) return host;
  SStringList exchanges;
  if (MxQuery(host, &exchanges) != kMxFailed && exchanges.Length() > 0)
    return Without(kBrackets, exchanges.Get(0).SplitExact(" ").Get(2));
  return noAddressFallback ? SString() : GetHostByName(host).Get(0);
}

unsigned int PortableRBLCheck(SString host, SString zone, SString &answer) {
  answer.Undef();
  if (FindDottedQuad(host.View()).empty()) host = GetRecord(host, 0);
  if (host.Length() == 0) return 0;
  if (zone.Length() == 0) zone = GetEnv(kDefaultBlockList);
  if (zone.Length() == 0) return 0;
  SString const reversed = WithQuadReversed(Without(kBrackets, Without(kWhiteSpace, host)));
  SStringList addresses;
  if (GetHostByName(reversed + (zone[0] == '.' ? "" : ".") + zone, &addresses) != kHostFound) return 0;
  answer = addresses.Get(0);
  return 1;
}

unsigned int PortableRBLCheck(SString host, SString zone) {
  SString answer;
  return PortableRBLCheck(host, zone, answer);
}

SString GetLocalHostName(SString const &domain) {
  char buffer[kHostNameLength + 1] = {};
  if (gethostname(buffer, kHostNameLength) != 0) return SString();
  SString name = buffer;
  if (domain.Length() == 0) return name;
  int const start = name.Length() - domain.Length() - 1;
  bool const has_domain =
      start >= 0 && name[start] == '.' && SString(name.View().substr(start + 1)).CompareNoCase(domain) == 1;
  return InDomain(has_domain ? SString(name.View().substr(0, start)) : name, domain);
}
