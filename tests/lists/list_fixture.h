// tests/lists/list_fixture.h - a scratch spool with a list, people, and the mail that requests put into the spool.
#pragma once
#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/store/sdbfile.h"
#include "tests/spool/spooltest.h"

inline SStringList List(std::vector<std::string> const &texts) {
  SStringList list;
  for (std::string const &text : texts) list.Push(SString(text));
  return list;
}

// What a request brings besides the address.
struct Options {
  std::string key = {}, password = {}, requester = {};
  unsigned digest = 0, trusted = 0, info = 0;
};

// The list "news" (UID "news-list") of the owner Olga, with the people Ann, Bob and Cleo of example.org.
class ListTest : public SpoolTest {
protected:
  using Strings = std::vector<std::string>;
  using Attributes = std::map<std::string, Strings>;
  static constexpr char kSecret[] = "s3cret";

  ListTest() : module("List-Manager") {
    setenv("FormSigKey", kSecret, 1);
    Set("MTA-Accounts", "/", "LocalMailDomains", {"example.org"});
    for (std::string const name : {"Ann", "Bob", "Cleo", "Olga"})
      Put(name, {{"Name", {name}}, {"SMTP-Address", {name + "@example.org"}}, {"POP-Address", {name}}});
    Put("Olga", {{"Password", {"pa55word"}}});
    Put("news-manager", {{"SMTP-Address", {"news-request@example.org"}}, {"Manager-List-Name", {"news"}}});
    Put("news-owner", {{"SMTP-Address", {"owner-news@example.org"}}});
    Put("news-list", {{"List-Name", {"News"}},
                      {"SMTP-Address", {"news@example.org"}},
                      {"List-Owners", {"Olga"}},
                      {"Linked-Manager-Account", {"news-manager"}},
                      {"Linked-Owner-Account", {"news-owner"}}});
  }

  static void Put(std::string const &uid, Attributes const &attributes) {
    SAccountDBMod store;
    SAccountMod account;
    ASSERT_TRUE(store.ModifyAccount(SString(uid), &account)) << uid;
    for (auto const &[name, values] : attributes) ASSERT_TRUE(account.Set(SString(name), List(values))) << name;
  }
  static Strings Values(std::string const &uid, char const *attribute) {
    SAccount account;
    if (!SAccountDB().GetAccountInfo(SString(uid), &account)) return {"(no account)"};
    return Strs(account.Get(SString(attribute)));
  }
  static void Set(char const *module, char const *section, char const *key, Strings const &values) {
    Sdbfile settings(module, 1, kProductWord);
    ASSERT_TRUE(settings.Open(section, 1));
    ASSERT_TRUE(settings.Set(key, List(values)));
  }
  // A list that asks for no keys, so that a request shows the rest of its road.
  static void TrustEverybody() {
    Put("news-list", {{"List-Verify-Subscriptions", {"no"}}, {"List-Verify-Unsubscriptions", {"no"}}});
  }

  // Requests, each with an object of its own as each mail has.
  void Prepare(SListActions &actions, Options const &options) {
    actions.SetAuthKey(SString(options.key), options.trusted);
    actions.SetPassword(SString(options.password));
    actions.SetDigest(options.digest);
    actions.SetSendInfo(options.info, options.info);
    if (!options.requester.empty()) actions.SetRequester(S821Address(SString(options.requester)));
  }
  int Subscribe(std::string const &address, unsigned bypass = 0, Options const &options = {}) {
    SListActions actions(&module, "news", S821Address(SString(address)));
    Prepare(actions, options);
    return actions.Subscribe(bypass);
  }
  int Unsubscribe(std::string const &address, unsigned forced = 0, Options const &options = {}) {
    SListActions actions(&module, "news", S821Address(SString(address)));
    Prepare(actions, options);
    return actions.Unsubscribe(forced);
  }
  static bool IsSubscribed(std::string const &address) {
    SString const uid = SListDB().GetSubscriberUID(S821Address(SString(address)));
    return SListDB().GetSubscribedListUIDs(uid).Contains("news-list");
  }

  // The messages in the spool, taken out of it.
  struct Mail {
    std::string control, header, body;
    bool Has(std::string const &line) const { return (control + header).find(line + "\r\n") != std::string::npos; }
  };
  std::vector<Mail> TakeMails() const {
    std::vector<Mail> mails;
    for (std::string const &file : Files()) {
      if (!file.starts_with("control/")) continue;
      std::string const name = file.substr(8, file.size() - 8 - std::string("-Control").size());
      std::string const paths[] = {file, "messages/" + name + "-Header", "messages/" + name + "-Body"};
      mails.push_back({FileBytes(paths[0]), FileBytes(paths[1]), FileBytes(paths[2])});
      for (std::string const &path : paths) std::filesystem::remove(Path(path));
    }
    return mails;
  }
  Mail TakeMail() const {
    std::vector<Mail> const mails = TakeMails();
    EXPECT_EQ(mails.size(), 1u);
    return mails.empty() ? Mail() : mails[0];
  }
  // The key as the subscriber finds it: on the line of the mail that begins with "confirm".
  static std::string KeyIn(Mail const &mail) {
    size_t const at = mail.body.find("\r\nconfirm ");
    if (at == std::string::npos) return "";
    size_t const begin = at + std::string("\r\nconfirm ").size();
    return mail.body.substr(begin, mail.body.find(' ', begin) - begin);
  }

  ProbeModule module;
};
