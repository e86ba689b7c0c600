#include "brenthaven/spool/instance.h"

#include <unistd.h>

#include <string>
#include <string_view>

#include "brenthaven/platform/environment.h"
#include "brenthaven/platform/nativepath.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/text/base.h"

namespace {

std::string_view Trimmed(std::string_view text) {
  auto const isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view Unquoted(std::string_view text) {
  bool const quoted = text.size() >= 2 && text.front() == text.back() && (text.front() == '"' || text.front() == '\'');
  return quoted ? text.substr(1, text.size() - 2) : text;
}

// Sets what one NAME=VALUE line says. A line without a name, or with a NUL byte, says nothing.
void TakeLine(std::string_view line) {
  line = Trimmed(line);
  if (line.empty() || line.front() == '#' || line.front() == ';') return;
  size_t const equals = line.find('=');
  if (equals == std::string_view::npos || equals == 0 || line.find('\0') != std::string_view::npos) return;
  PutEnv(SString(Trimmed(line.substr(0, equals))), SString(Unquoted(Trimmed(line.substr(equals + 1)))));
}

int TakeFile(SString const &path) {
  SString const text = MapFileRead(path);
  if (!text.Defined()) return 0;
  std::string_view rest = text.View();
  while (!rest.empty()) {
    size_t const end = rest.find('\n');
    TakeLine(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return 1;
}

void SetDefault(char const *name, SString const &value) {
  if (GetEnv(name).Length() == 0 && value.Length() > 0) PutEnv(name, value);
}

SString SystemHostName() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0) return "localhost";
  return name;
}

}  // namespace

int LoadInstanceEnvironment(SString const &root) {
  PutEnv("Brenthaven", root);
  int const read = TakeFile(root + "/config/environment");
  PutEnv("Brenthaven", root);  // a tree that was moved is where it is, not where its file says
  SetDefault("MailboxDir", root + "/mailboxes");
  SetDefault("HostName", SystemHostName());
  SString const host = GetEnv("HostName");
  int const dot = host.Index('.', 0);
  SetDefault("DomainName", dot >= 0 ? SString(host.View().substr(static_cast<size_t>(dot) + 1)) : host);
  return read;
}

int IsGuardedRoot(SString const &root) {
  struct stat info;
  return sys::Stat(SNativePath(root), &info) != 0 || (info.st_mode & S_IWOTH) == 0;
}

SString UnguardedRootText(SString const &root) { return "others can write in " + root; }

int LoadDispatcherAddress(SString const &root) { return TakeFile(root + "/run/dispatcher"); }
