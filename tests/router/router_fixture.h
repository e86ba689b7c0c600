// tests/router/router_fixture.h - a spool with a router's settings, accounts and aliases, and words to speak about it.
#pragma once
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/alias.h"
#include "brenthaven/router/smtprouter.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

inline std::string Joined(Texts const &texts, std::string const &separator = " ") {
  std::string joined;
  for (std::string const &text : texts) joined += (joined.empty() ? "" : separator) + text;
  return joined;
}

// The dispatcher's ear: collects the datagrams that controls are announced by.
class Dispatcher {
public:
  Dispatcher() : _socket(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(_socket, reinterpret_cast<sockaddr *>(&address), length) != 0) abort();
    if (getsockname(_socket, reinterpret_cast<sockaddr *>(&address), &length) != 0) abort();
    setenv("DispatchSocket", std::to_string(ntohs(address.sin_port)).c_str(), 1);
    setenv("DispatchKey", "key", 1);
  }
  ~Dispatcher() { close(_socket); }
  // Message names announced since the last call, with the function behind a blank.
  Texts Heard() {
    Texts heard;
    char buffer[1024];
    for (ssize_t size; (size = recv(_socket, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
      SStringList const fields = SString(buffer, static_cast<int>(size)).SplitExact("\n");
      heard.push_back(Text(fields.Get(0) + " " + fields.Get(2)));
    }
    return heard;
  }

private:
  int _socket;
};

class RouterTest : public ScratchSpool {
protected:
  RouterTest() {
    for (char const *name : {"ForceRouting", "ByPassIPaddr", "QueueDomains", "DefaultDomain", "SubDomains", "FastMRT"})
      unsetenv(name);
    setenv("ModuleName", "SMTP-Router", 1);
    for (char const *module : {"SMTP-Router", "Account-Handler", "Mailbox-Deliver"}) OpenSettings(module, "/Config");
    OpenSettings("SMTP-Router", "/Error-Actions");
    OpenSettings("Mailbox-Deliver", "/Messages");
    Setting("MTA-Accounts", "/", "LocalMailDomains", {"example.org", "second.example"});
  }

  static Sdbfile OpenSettings(char const *module, char const *section) {
    Sdbfile db(module, 1, kProductWord);
    EXPECT_EQ(db.Open(section, 1), 1) << module << section;
    return db;
  }
  static void Setting(char const *module, char const *section, char const *key, Texts const &values) {
    EXPECT_EQ(OpenSettings(module, section).Set(key, ListOf(values)), 1) << key;
  }
  static void Config(char const *key, char const *value) { Setting("SMTP-Router", "/Config", key, {value}); }

  // An account whose mail goes to a delivery module of the test, "Shelf-Deliver", unless attributes say otherwise.
  static void AddAccount(char const *uid, Texts const &addresses,
                         std::vector<std::pair<char const *, Texts>> const &attributes = {
                             {"Local-Delivery", {"Shelf"}}}) {
    SAccountDBMod db;
    SAccountMod account;
    ASSERT_EQ(db.ModifyAccount(uid, &account), 1) << uid;
    if (!addresses.empty()) {
      ASSERT_EQ(account.Set("SMTP-Address", ListOf(addresses)), 1) << uid;
    }
    for (auto const &[name, values] : attributes) ASSERT_EQ(account.Set(name, ListOf(values)), 1) << name;
  }
  static void AddAlias(char const *address, Texts const &targets) {
    ASSERT_EQ(SAliasDBMod().AddChannelAliases(S821Address(address), ListOf(targets)), 1u) << address;
  }

  std::string sender = "SMTP <sender@far.example>";

  // A message that entered here, for the entries; further lines of its control behind them.
  void PutMessage(std::string const &name, Texts const &entries, Texts const &more = {}) const {
    Texts lines = {"Function: SMTP-Router",
                   "Control-Type: Mail",
                   "Priority: 1",
                   "User-From: " + sender,
                   "Host-From: far.example [192.0.2.7]",
                   "Message-Size: 1"};
    for (std::string const &entry : entries) lines.push_back("Channel-To: " + entry);
    lines.insert(lines.end(), more.begin(), more.end());
    PutFile("control/" + name + "-Control", Joined(lines, "\r\n") + "\r\n");
    PutFile("messages/" + name + "-Header", "Subject: test\r\n");
    PutFile("messages/" + name + "-Body", "Hello.\r\n");
  }

  SControl ReadControl(std::string const &path) const {
    SControl control;
    EXPECT_EQ(control.Read(Bytes(Path(path))), 1) << path;
    return control;
  }
  // Paths, relative to the root, of the control files in a directory, with what their Function: names.
  std::multimap<std::string, std::string> Controls(std::string const &dir = "control") const {
    std::multimap<std::string, std::string> controls;
    if (!Exists(dir)) return controls;
    for (auto const &file : std::filesystem::directory_iterator(Path(dir))) {
      if (!file.is_regular_file()) continue;
      std::string const path = dir + "/" + file.path().filename().string();
      controls.emplace(Text(ReadControl(path).Get("Function:").Get(0)), path);
    }
    return controls;
  }
  Texts PathsOf(std::string const &function, std::string const &dir = "control") const {
    Texts paths;
    auto const controls = Controls(dir);
    for (auto [at, end] = controls.equal_range(function); at != end; ++at) paths.push_back(at->second);
    return paths;
  }
  void ClearSpool() const {
    for (char const *dir : {"messages", "control", "deferred", "mailboxes"}) {
      std::filesystem::remove_all(Path(dir));
      std::filesystem::create_directory(Path(dir));
    }
  }

  // One line for all that became of a message that the router has just processed:
  //   "to ann (<ann@example.org>) | host example.net: <x@example.net> | UnknownAccounts: <y@example.org>"
  std::string Outcome(SSMTPRouterModule &router) const {
    Texts parts;
    if (router.GetControl().Get("Function:").Get(0) == "Account-Handler")
      parts.push_back("to " + Joined(List(router.GetControl().Get("Account-To:"))) + " (" +
                      Addresses(router.GetControl()) + ")");
    std::map<std::string, std::string> sorted;
    for (std::string const &path : PathsOf("SMTP-Deliver")) {
      SControl const copy = ReadControl(path);
      sorted["host " + Text(copy.Get("Host-To:").Get(0))] = Addresses(copy);
    }
    for (std::string const &path : PathsOf("Error-Handler")) {
      SControl const copy = ReadControl(path);
      std::string const error = Text(copy.Get("Error:").Get(0));
      sorted[error.substr(error.find('(') + 1, error.rfind(')') - error.find('(') - 1)] = Addresses(copy);
    }
    for (auto const &[what, whom] : sorted) parts.push_back(what + ": " + whom);
    return Joined(parts, " | ");
  }
  std::string Route(Texts const &entries, Texts const &more = {}) const {
    ClearSpool();
    PutMessage("m", entries, more);
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    EXPECT_EQ(router.ProcessMessageName("m"), kModuleDone);
    return Outcome(router);
  }

private:
  static std::string Addresses(SControl const &control) {
    Texts addresses;
    for (std::string const &entry : List(control.Get("Channel-To:")))
      addresses.push_back(entry.rfind("SMTP ", 0) == 0 ? entry.substr(5) : entry);
    return Joined(addresses);
  }
};
