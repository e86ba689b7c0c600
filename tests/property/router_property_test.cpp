// What becomes of recipients, whatever their number and order, and however often a pass has to start again.
#include <set>

#include "tests/platform/callhook.h"
#include "tests/property/property.h"
#include "tests/router/router_fixture.h"
#include "tests/store/process.h"

namespace {

class RouterProperty : public RouterTest {
protected:
  using Deliveries = std::multiset<std::string>;

  RouterProperty() {
    AddAccount("ann", {"ann@example.org"});
    AddAccount("bob", {"bob@example.org"});
    AddAlias("<all@example.org>", {"SMTP <ann@example.org>", "SMTP <bob@example.org>", "SMTP <x@h1.example>"});
    AddAlias("<both@example.org>", {"SMTP <all@example.org>", "SMTP <nobody@example.org>"});
    AddAlias("<circle@example.org>", {"SMTP <round@example.org>", "SMTP <ann@example.org>"});
    AddAlias("<round@example.org>", {"SMTP <circle@example.org>"});
  }

  // Each recipient of each control in a directory that another module is to work on, with the module's name and host.
  void Collect(std::string const &directory, Deliveries &deliveries) const {
    for (auto const &[function, path] : Controls(directory)) {
      if (function == "SMTP-Router") continue;
      SControl const control = ReadControl(path);
      bool const isChannel = function == "SMTP-Deliver" || function == "Error-Handler";
      for (std::string const &entry : List(control.Get(isChannel ? "Channel-To:" : "Deliver-To:")))
        deliveries.insert(Joined({function, Text(control.Get("Host-To:").Get(0)), entry}));
    }
  }
  Deliveries Made() const {
    Deliveries deliveries;
    Collect("control", deliveries);
    return deliveries;
  }
  static void Process(std::string const &name) {
    SSMTPRouterModule router;
    ASSERT_EQ(router.LoadEnv(), 1u);
    ASSERT_EQ(router.ProcessMessageName(Bytes(name)), kModuleDone);
  }
  Deliveries Deliver(Texts const &entries) const {
    ClearSpool();
    PutMessage("m", entries);
    Process("m");
    return Made();
  }

  // Some of the recipients, each of them once.
  static Texts SomeOf(SChoices &choices, Texts all) {
    choices.Shuffle(all);
    all.resize(static_cast<size_t>(1 + choices.Below(static_cast<int>(all.size()))));
    return all;
  }
  Texts const kRecipients = {"SMTP <ann@example.org>",      "SMTP <bob@example.org>", "SMTP <all@example.org>",
                             "SMTP <both@example.org>",     "SMTP <x@h1.example>",    "SMTP <y@h1.example>",
                             "SMTP <circle@example.org>",   "SMTP <z@h2.example>",    "SMTP <nobody@example.org>",
                             "SMTP <nobody@second.example>"};
};

TEST_F(RouterProperty, RecipientsLeaveForTheirHostsHoweverTheyAreBatched) {
  ForEachCase(
      [&](SChoices &choices) {
        int const hosts = 1 + choices.Below(45);
        Texts entries;
        Deliveries want;
        for (int i = 1 + choices.Below(60); i > 0; --i) {
          std::string const host = "h" + std::to_string(choices.Below(hosts)) + ".example";
          entries.push_back("SMTP <x" + std::to_string(i) + "@" + host + ">");
          want.insert("SMTP-Deliver " + host + " " + entries.back());
        }
        ClearSpool();
        int messages = 0;
        for (size_t at = 0; at < entries.size();) {  // as messages of any size
          size_t const part = std::min(entries.size() - at, static_cast<size_t>(1 + choices.Below(60)));
          std::string const name = "m" + std::to_string(++messages);
          PutMessage(name,
                     Texts(entries.begin() + static_cast<long>(at), entries.begin() + static_cast<long>(at + part)));
          Process(name);
          at += part;
        }
        ASSERT_EQ(Made(), want);
      },
      20);
}

TEST_F(RouterProperty, OrderOfTheRecipientsChangesNothingButOrder) {
  ForEachCase(
      [&](SChoices &choices) {
        Texts entries = SomeOf(choices, kRecipients);
        Deliveries const one = Deliver(entries);
        choices.Shuffle(entries);
        ASSERT_EQ(Deliver(entries), one) << Joined(entries);
      },
      10);
}

TEST_F(RouterProperty, APassThatStartsAgainDeliversNoLess) {
  ForEachCase(
      [&](SChoices &choices) {
        Texts const entries = SomeOf(choices, kRecipients);
        Deliveries const whole = Deliver(entries);
        ClearSpool();
        PutMessage("m", entries);
        int const crashAt = 1 + choices.Below(400);
        Peer child([&](Peer &) {
          SCallHook hook("", crashAt, SCallHook::kCrash);
          Process("m");
          return 0;
        });
        bool const isCrashed = child.Result() == SCallHook::kCrashCode;
        for (auto const &file : std::filesystem::directory_iterator(Path("control")))
          if (file.path().extension() == ".temp") std::filesystem::remove(file.path());
        if (Exists("control/m-Control")) Process("m");
        Deliveries const made = Made();
        ASSERT_TRUE(std::includes(made.begin(), made.end(), whole.begin(), whole.end()))
            << "call " << crashAt << ", " << Joined(entries) << testing::PrintToString(made);
        ASSERT_TRUE(isCrashed || made == whole);
        ASSERT_FALSE(Exists("control/m-Control"));
      },
      10);
}

}  // namespace
