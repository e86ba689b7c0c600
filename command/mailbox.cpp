// brenthaven mailbox: stored mail.
#include <sysexits.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/safeuid.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/text/base.h"
#include "command/command.h"

namespace {

using Json = nlohmann::ordered_json;

struct MailboxOptions {
  std::string uid;
  std::string message;
  bool json = false;
};

struct StoredMessage {
  std::string name;
  long long size;
  time_t time;
  std::string from, subject;
};

constexpr size_t kHeaderRead = 64 << 10;  // of a file, to find two fields near its top

SString FolderOf(std::string const &uid) {
  SString root = GetEnv("MailboxDir");
  if (!root.HasPrefix("/")) return {};
  if (root[-1] != '/') root += '/';
  return root + GetMailboxSubpath(SString(uid)) + "/in/";
}

bool CheckAccount(Command &command, std::string const &uid) {
  if (IsSafeUID(SString(uid)) && SAccountDB().GetAccountInfo(SString(uid), nullptr)) return true;
  if (SAccountBase::ReadFailed())
    Fail(command, EX_IOERR, "the account files cannot be read");
  else
    Fail(command, EX_NOUSER, "no such account: " + uid);
  return false;
}

// The first field of that name, unfolded, with control bytes blanked: it goes to a terminal.
std::string FieldOf(std::string_view header, std::string_view name) {
  for (size_t at = 0; at < header.size();) {
    size_t end = header.find('\n', at);
    while (end != std::string_view::npos && end + 1 < header.size() &&
           (header[end + 1] == ' ' || header[end + 1] == '\t'))
      end = header.find('\n', end + 1);
    std::string_view const field = header.substr(at, end == std::string_view::npos ? end : end - at);
    if (field.empty() || field == "\r") return {};
    if (field.size() > name.size() && strncasecmp(field.data(), name.data(), name.size()) == 0) {
      std::string value(field.substr(field.find_first_not_of(" \t", name.size()) == std::string_view::npos
                                         ? field.size()
                                         : field.find_first_not_of(" \t", name.size())));
      std::erase_if(value, [](char c) { return c == '\r' || c == '\n'; });
      std::replace_if(
          value.begin(), value.end(), [](char c) { return (static_cast<unsigned char>(c) & 0x7F) < 0x20; }, ' ');
      return value;
    }
    if (end == std::string_view::npos) return {};
    at = end + 1;
  }
  return {};
}

bool ReadMessage(SString const &path, StoredMessage &message) {
  SDescriptor const file(sys::Open(path, sys::kReadOwn));
  struct stat info;
  if (!file.IsOpen() || sys::Fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  std::string top(kHeaderRead, '\0');
  ssize_t const length = sys::Pread(file.Get(), top.data(), top.size(), 0);
  if (length < 0) return false;
  top.resize(static_cast<size_t>(length));
  message = {ToStd(BaseName(path)), info.st_size, info.st_mtime, FieldOf(top, "From:"), FieldOf(top, "Subject:")};
  return true;
}

std::vector<StoredMessage> MessagesOf(std::string const &uid) {
  std::vector<StoredMessage> messages;
  StoredMessage message;
  for (SString const &path : ReadDir(FolderOf(uid)))
    if (isdigit(static_cast<unsigned char>(BaseName(path)[0])) && ReadMessage(path, message))
      messages.push_back(message);
  std::sort(messages.begin(), messages.end(), [](auto const &a, auto const &b) { return a.name < b.name; });
  return messages;
}

void ListMailbox(Command &command, MailboxOptions const &options) {
  if (!EnterInstance(command) || !CheckAccount(command, options.uid)) return;
  Json all = Json::array();
  for (StoredMessage const &each : MessagesOf(options.uid)) {
    if (options.json)
      all.push_back({{"name", each.name},
                     {"bytes", each.size},
                     {"time", LocalTimeText(each.time)},
                     {"from", each.from},
                     {"subject", each.subject}});
    else
      printf("%s  %s  %9lld  %s  %s\n", each.name.c_str(), LocalTimeText(each.time).c_str(), each.size,
             each.from.c_str(), each.subject.c_str());
  }
  if (options.json) puts(all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void ShowMessage(Command &command, MailboxOptions const &options) {
  if (!EnterInstance(command) || !CheckAccount(command, options.uid)) return;
  if (options.message.empty() || !isdigit(static_cast<unsigned char>(options.message[0])) ||
      options.message.find('/') != std::string::npos)
    return Fail(command, EX_DATAERR, "not the name of a message: " + options.message);
  SDescriptor const file(sys::Open(FolderOf(options.uid) + SString(options.message), sys::kReadOwn));
  if (!file.IsOpen()) return Fail(command, EX_NOINPUT, "no such message: " + options.message);
  if (sys::CopyContents(file.Get(), STDOUT_FILENO) != 0)
    Fail(command, EX_IOERR, "cannot print " + options.message + ": " + ToStd(GetErrorString(-1)));
}

// What the size record says against the quota, for one account or all.
void PrintSizes(Command &command, MailboxOptions const &options) {
  if (!EnterInstance(command)) return;
  SStringList uids = SAccountDB().AccountUIDList();
  if (!options.uid.empty()) {
    if (!CheckAccount(command, options.uid)) return;
    uids = SStringList(SString(options.uid));
  }
  Json all = Json::array();
  for (SString const &uid : uids) {
    SString const folder = FolderOf(ToStd(uid));
    if (!IsDirectory(folder)) continue;  // never had mail
    SSizeFile record(folder);
    if (!record.Lock()) {
      Fail(command, EX_TEMPFAIL, "cannot read the size of " + ToStd(uid) + ": " + ToStd(GetErrorString(-1)));
      continue;
    }
    long long const bytes = record.GetSize();
    int const quota = SAccount::GetMailboxQuota(uid);
    if (options.json)
      all.push_back({{"uid", ToStd(uid)}, {"bytes", bytes}, {"quota_kbytes", quota}});
    else if (bytes < 0)
      printf("%s: not counted\n", static_cast<char const *>(uid));
    else if (quota < 0)
      printf("%s: %lld bytes, no quota\n", static_cast<char const *>(uid), bytes);
    else
      printf("%s: %lld bytes of %d kbytes\n", static_cast<char const *>(uid), bytes, quota);
  }
  if (options.json) puts(all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void Recount(Command &command, MailboxOptions const &options) {
  if (!EnterInstance(command)) return;
  SStringList uids = SAccountDB().AccountUIDList();
  if (!options.uid.empty()) {
    if (!CheckAccount(command, options.uid)) return;
    uids = SStringList(SString(options.uid));
  }
  SMailboxDeliverModule module;
  if (!module.LoadEnv()) return Fail(command, EX_CONFIG, "the settings of Mailbox-Deliver cannot be opened");
  int done = 0, counted = 0;
  for (SString const &uid : uids) {
    SString const folder = FolderOf(ToStd(uid));
    if (IsDirectory(folder)) {
      SSizeFile record(folder);
      if (record.Lock()) {
        (void)module.AvailableMailboxStorage(record, 1, nullptr);  // counts; what is left does not matter here
        ++counted;
      } else {
        Fail(command, EX_TEMPFAIL, "cannot count " + ToStd(uid) + ": " + ToStd(GetErrorString(-1)));
      }
    }
    ShowProgress(++done, uids.Length());
  }
  printf("%d mailboxes counted\n", counted);
}

}  // namespace

void AddMailbox(CLI::App &app, Command &command) {
  auto const options = std::make_shared<MailboxOptions>();
  CLI::App *const mailbox = app.add_subcommand("mailbox", "stored mail");
  mailbox->require_subcommand(1);
  auto const add = [&](char const *name, char const *help, auto run) {
    CLI::App *const sub = mailbox->add_subcommand(name, help);
    sub->callback([&command, options, run] { run(command, *options); });
    return sub;
  };
  CLI::App *sub = add("list", "the messages of a mailbox", ListMailbox);
  sub->add_option("UID", options->uid, "the account")->required();
  sub->add_flag("--json", options->json, "print JSON");
  sub = add("show", "print a message", ShowMessage);
  sub->add_option("UID", options->uid, "the account")->required();
  sub->add_option("MESSAGE", options->message, "its name, as list prints it")->required();
  sub = add("size", "bytes stored and quota", PrintSizes);
  sub->add_option("UID", options->uid, "all accounts without it");
  sub->add_flag("--json", options->json, "print JSON");
  sub = add("recount", "count the sizes of mailboxes anew", Recount);
  sub->add_option("UID", options->uid, "all accounts without it");
}
