#include "brenthaven/net/nameservers.h"

#include <string>

#include "brenthaven/net/dottedquad.h"
#include "brenthaven/platform/registry.h"
#include "brenthaven/text/base.h"

namespace {

constexpr char kRegistryKey[] = "SOFTWARE\\tqx";
constexpr char kRegistryValue[] = "NameServer";
// Files with resolver lines: what was set up by hand, or by a manager for all programs, then what network managers keep
// of what DHCP told them.
constexpr char const *kResolverFiles[] = {
    "/etc/resolv.conf",
    "/run/systemd/resolve/resolv.conf",
    "/run/NetworkManager/no-stub-resolv.conf",
};
constexpr char kLastResort[] = "127.0.0.1";

// A text value of an open key; empty when it is missing or no text.
SString TextValue(HKEY key, char const *name) {
  std::string buffer(2000, '\0');
  for (;;) {
    DWORD type = 0;
    DWORD size = static_cast<DWORD>(buffer.size());
    LONG const status = RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE *>(buffer.data()), &size);
    if (status == ERROR_MORE_DATA && size >= buffer.size()) {
      buffer.assign(size_t{size} + 1, '\0');
      continue;
    }
    if (status != ERROR_SUCCESS || type != REG_SZ || size <= 1) return SString("");
    buffer.resize(size);
    return SString(buffer.c_str());  // up to the NUL that may end the value
  }
}

SStringList RegistryServers() {
  HKEY key;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kRegistryKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return SStringList();
  SString const value = TextValue(key, kRegistryValue);
  (void)RegCloseKey(key);  // only read
  return value.BreakToWords();
}

void AddNew(SStringList const &servers, SStringList *result) {
  for (SString const &server : servers)
    if (!result->Contains(server)) (void)result->Push(server);
}

}  // namespace

SStringList GetNameServers() {
  SStringList result;
  AddNew(RegistryServers(), &result);
  for (char const *file : kResolverFiles) AddNew(ParseResolverConfiguration(MapFileRead(file)), &result);
  if (result.Length() == 0) (void)result.Push(kLastResort);
  return result;
}

SStringList ParseResolverConfiguration(SString const &text) {
  SStringList servers;
  for (SString const &line : text.SplitExact("\n")) {
    SStringList const words = line.BreakToWords();
    if (words.Get(0) == "nameserver" && IsDottedQuad(words.Get(1).View())) (void)servers.Push(words.Get(1));
  }
  return servers;
}
