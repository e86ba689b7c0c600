// tests/mailbox/mail_fixture.h - a spool with accounts and mailboxes, and words to speak about stored mail.
#pragma once
#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/mailbox/mailboxpath.h"
#include "brenthaven/store/sdbfile.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

using Attributes = std::vector<std::pair<char const *, Texts>>;

class MailTest : public ScratchSpool {
protected:
  MailTest() {
    for (char const *name : {"MailboxBucketCount", "DefaultMailboxQuota", "MinFreeDiskSpaceKB", "MaxDirectDelivery",
                             "MaxDirectKbytes", "QueueDomains", "ForceRouting", "FastMRT"})
      unsetenv(name);
    setenv("ModuleName", "Mailbox-Deliver", 1);
    PutFile(".LastSpaceWarning", "99999999999");  // the disk of the machine that runs the tests is not their subject
    Config("Mailbox-Deliver", "Config", "Log", "no");
  }

  static void Config(char const *module, char const *section, char const *key, std::string const &value) {
    Sdbfile settings(module, 1, kProductWord);
    ASSERT_TRUE(settings.Open(SString("/") + section, 1) && settings.Set(key, ListOf({value}))) << module << key;
  }
  static void AddAccount(std::string const &uid, Attributes const &attributes = {}) {
    SAccountDBMod store;
    SAccountMod account;
    ASSERT_TRUE(store.ModifyAccount(Bytes(uid), &account)) << uid;
    ASSERT_TRUE(account.Set("SMTP-Address", ListOf({uid + "@example.org"}))) << uid;
    for (auto const &[name, values] : attributes) ASSERT_TRUE(account.Set(name, ListOf(values))) << name;
  }

  void PutMessage(std::string const &name, std::string const &function, Texts const &lines,
                  std::string const &header = "Subject: test\r\n", std::string const &body = "Hello.\r\n") const {
    std::string text = "Function: " + function + "\r\nControl-Type: Mail\r\nPriority: 1\r\n";
    for (std::string const &line : lines) text += line + "\r\n";
    PutFile("control/" + name + "-Control", text);
    PutFile("messages/" + name + "-Header", header);
    PutFile("messages/" + name + "-Body", body);
  }
  // A message for mailboxes, from somebody.
  void PutDelivery(std::string const &name, Texts const &accounts, std::string const &body = "Hello.\r\n") const {
    Texts lines = {"User-From: SMTP <sender@far.example>"};
    for (std::string const &account : accounts) lines.push_back("Deliver-To: Mailbox " + account);
    PutMessage(name, "Mailbox-Deliver", lines, "Subject: test\r\n", body);
  }
  static int Deliver(std::string const &name) {
    SMailboxDeliverModule module;
    EXPECT_EQ(module.LoadEnv(), 1u);
    return module.ProcessMessageName(Bytes(name));
  }
  // What is to be read in a mailbox after PutDelivery.
  static std::string Plain(std::string const &body = "Hello.\r\n") {
    return "Return-Path: <sender@far.example>\r\nSubject: test\r\n\r\n" + body;
  }

  static std::string Folder(std::string const &uid) {
    return "mailboxes/" + Text(GetMailboxSubpath(Bytes(uid))) + "/in/";
  }
  // Contents of the messages in a mailbox, in the order of their names, which is that of their arrival.
  Texts Stored(std::string const &uid) const {
    Texts names, messages;
    if (!Exists(Folder(uid))) return {};
    for (auto const &file : std::filesystem::directory_iterator(Path(Folder(uid))))
      if (isdigit(file.path().filename().string()[0])) names.push_back(file.path().filename().string());
    std::sort(names.begin(), names.end());
    for (std::string const &name : names) messages.push_back(FileBytes(Folder(uid) + name));
    return messages;
  }
  std::string Size(std::string const &uid) const { return FileBytes(Folder(uid) + "__size__"); }

  Texts Field(std::string const &path, char const *key) const {
    SControl control;
    EXPECT_TRUE(control.Read(Bytes(Path(path)))) << path;
    return List(control.Get(key));
  }
  // Error: of each report in control/, sorted; with the text of each behind ": " and its lines joined by "|".
  Texts Reports(bool withText = false) const {
    Texts reports;
    for (auto const &file : std::filesystem::directory_iterator(Path("control"))) {
      std::string const path = "control/" + file.path().filename().string();
      if (Field(path, "Function:") != Texts{"Error-Handler"}) continue;
      std::string report = Field(path, "Error:").at(0);
      if (withText)
        for (std::string const &line : Field(path, "Error-Text:")) report += "|" + line;
      reports.push_back(report);
    }
    std::sort(reports.begin(), reports.end());
    return reports;
  }
  // Names of all files below a directory of the root, sorted.
  Texts Files(std::string const &dir) const {
    Texts files;
    for (auto const &entry : std::filesystem::recursive_directory_iterator(Path(dir)))
      if (!entry.is_directory()) files.push_back(entry.path().lexically_relative(Path(dir)));
    std::sort(files.begin(), files.end());
    return files;
  }
};
