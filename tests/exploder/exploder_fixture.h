// tests/exploder/exploder_fixture.h - a scratch spool with the list "news" of Olga, readers, and words for what the
// exploder leaves behind.
#pragma once
#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "brenthaven/exploder/exploder.h"
#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/keys.h"
#include "tests/mailbox/mail_fixture.h"

class ExploderTest : public MailTest {
protected:
  static constexpr char kSecret[] = "s3cret";
  static constexpr char kHeader[] =
      "From: Ann <ann@example.org>\r\nTo: news@example.org\r\nSubject: hello\r\nMessage-ID: <1@far.example>\r\n";

  ExploderTest() {
    setenv("ModuleName", "List-Exploder", 1);
    setenv("FormSigKey", kSecret, 1);
    unsetenv("MaxBounceCount");
    Config("List-Exploder", "Config", "List-VERP", "no");
    for (char const *section : {"Config", "Error-Actions"}) Config("SMTP-Router", section, "Log", "no");
    Config("MTA-Accounts", "", "LocalMailDomains", "example.org");
    for (char const *uid : {"ann", "bob", "olga", "Postmaster"}) AddAccount(uid, {{"Local-Delivery", {"Mailbox"}}});
    AddAccount("news-request", {{"Handler-Delivery", {"List-Manager"}}});
    AddAccount("owner-news", {{"Handler-Delivery", {"List-Exploder"}}});
    AddAccount("news", {{"List-Name", {"news"}},
                        {"Handler-Delivery", {"List-Exploder"}},
                        {"List-Owners", {"olga"}},
                        {"Linked-Manager-Account", {"news-request"}},
                        {"Linked-Owner-Account", {"owner-news"}}});
  }

  static void Set(std::string const &uid, char const *attribute, Texts const &values) {
    SAccountDBMod store;
    SAccountMod account;
    ASSERT_TRUE(store.ModifyAccount(Bytes(uid), &account) && account.Set(attribute, ListOf(values))) << attribute;
  }
  static void Join(std::string const &uid, char const *mode = "Subscribed-Lists-Immediate",
                   std::string const &list = "news") {
    Set(uid, "Subscribed-Lists", {list});
    Set(uid, mode, {list});
  }
  static void JoinDigest(std::string const &uid) { Join(uid, "Subscribed-Lists-Digest"); }
  // A reader elsewhere, by an account that is there for that alone.
  static void JoinRemote(std::string const &address) {
    SAccountDBMod store;
    SAccountMod account;
    ASSERT_TRUE(store.ModifyAccount(Bytes("remote " + address), &account));
    for (char const *attribute : {"Subscribed-Lists", "Subscribed-Lists-Immediate"})
      ASSERT_TRUE(account.Set(attribute, ListOf({"news"})));
    ASSERT_TRUE(account.Set("Remote-SMTP-Address", ListOf({address})));
  }

  void PutPosting(std::string const &name, std::string const &header = kHeader, Texts const &lines = {},
                  std::string const &body = "Hello.\r\n") const {
    Texts all = {"User-From: SMTP <eve@far.example>", "Host-From: far.example [192.0.2.7]", "Account-To! news",
                 "MTA-Hops: 1"};
    if (!lines.empty() && lines[0].starts_with("User-From:")) all.erase(all.begin());
    bool const isForAnother =
        std::any_of(lines.begin(), lines.end(), [](std::string const &line) { return line.starts_with("Module-To:"); });
    if (!isForAnother) all.push_back("Module-To: List-Exploder news");
    all.insert(all.end(), lines.begin(), lines.end());
    PutMessage(name, "List-Exploder", all, header, body);
  }
  // A message as it comes in, for addresses in angle brackets; an empty sender is the null one.
  void PutIncoming(std::string const &sender, Texts const &addresses, std::string const &header,
                   std::string const &body = "Hello.\r\n") const {
    Texts lines = {sender.empty() ? "User-From: SMTP<>" : "User-From: SMTP <" + sender + ">",
                   "Host-From: far.example [192.0.2.7]"};
    for (std::string const &address : addresses) lines.push_back("Channel-To: SMTP " + address);
    PutMessage("i", "SMTP-Router", lines, header, body);
  }
  static int Explode(std::string const &name) {
    SListExploderModule module;
    EXPECT_EQ(module.LoadEnv(), 1u);
    return module.ProcessMessageName(Bytes(name));
  }
  void Walk() const {
    SListExploderModule module;
    EXPECT_EQ(module.LoadEnv(), 1u);
    module.ProcessQueue();
  }

  // A message in control/, by name.
  struct Mail {
    std::string name, function, header, body;
    Texts to;
    Texts Field(ExploderTest const &test, char const *key) const {
      return test.MailTest::Field("control/" + name + "-Control", key);
    }
  };
  std::vector<Mail> Mails() const {
    std::vector<Mail> mails;
    for (std::string const &file : Files("control")) {
      std::string const path = "control/" + file;
      std::string const name = file.substr(0, file.size() - std::string("-Control").size());
      Mail mail{.name = name,
                .function = Field(path, kKeyFunction).at(0),
                .header = FileBytes("messages/" + name + "-Header"),
                .body = FileBytes("messages/" + name + "-Body"),
                .to = {}};
      for (char const *key : {kKeyDeliverTo, kKeyAccountTo, kKeyChannelTo, kKeyModuleTo})
        for (std::string const &entry : Field(path, key)) mail.to.push_back(entry);
      mails.push_back(mail);
    }
    return mails;
  }
  // "Mailbox-Deliver: Mailbox ann,Mailbox bob; SMTP-Router: SMTP <jo@far.example>", sorted.
  std::string Outcome() const {
    Texts lines;
    for (Mail const &mail : Mails()) {
      std::string line = mail.function + ":";
      for (std::string const &entry : mail.to) line += (line.back() == ':' ? " " : ",") + entry;
      lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    std::string all;
    for (std::string const &line : lines) all += (all.empty() ? "" : "; ") + line;
    return all;
  }
  void ClearSpool() const {
    for (char const *dir : {"control", "messages", "deferred", "List-Exploder", "listdata"}) {
      std::filesystem::remove_all(Path(dir));
      std::filesystem::create_directory(Path(dir));
    }
  }
  // Runs the modules of all messages in control/ until none is left that one of them takes.
  void Drain() const {
    for (bool isGoing = true; isGoing;) {
      isGoing = false;
      for (Mail const &mail : Mails()) {
        int code = kModuleNotMine;
        if (mail.function == "Mailbox-Deliver") code = Run<SMailboxDeliverModule>(mail.name);
        if (mail.function == "Account-Handler") code = Run<SAccountHandlerModule>(mail.name);
        if (mail.function == "List-Exploder") code = Run<SListExploderModule>(mail.name);
        if (mail.function == "SMTP-Router") code = Run<SSMTPRouterModule>(mail.name);
        isGoing = isGoing || code == kModuleDone;
      }
    }
  }

private:
  template <class Module>
  static int Run(std::string const &name) {
    Module module;
    EXPECT_EQ(module.LoadEnv(), 1u);
    return module.ProcessMessageName(Bytes(name));
  }
};
