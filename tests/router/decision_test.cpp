// Which way each recipient goes.
#include "tests/router/router_fixture.h"

namespace {

struct Case {
  char const *why;
  char const *recipients;  // in angle brackets, with blanks between
  char const *want;
};

class DecisionTest : public RouterTest {
protected:
  DecisionTest() {
    AddAccount("ann", {"ann@example.org", "ann.long@example.org"});
    AddAccount("bob", {"Bob@Example.org"});
    AddAccount("rest", {"*@second.example"});
    AddAccount("literal", {"lit@[127.0.0.1]"});
    AddAccount("home", {"carol@mail.example.org"});
    AddAccount("quoted", {"inner@example.org"});
    AddAlias("<both@example.org>", {"SMTP <ann@example.org>", "SMTP <bob@example.org>"});
    AddAlias("<away@example.org>", {"SMTP <x@far.example>", "SMTP <ANN@example.org>"});
    AddAlias("<loop@example.org>", {"SMTP <pool@example.org>"});
    AddAlias("<pool@example.org>", {"SMTP <loop@example.org>", "SMTP <bob@example.org>"});
    AddAlias("<broken@example.org>", {"SMTP <a@b@c>"});
    AddAlias("<remote@alias.example>", {"SMTP <bob@example.org>"});
  }
  void Check(std::initializer_list<Case> cases, Texts const &more = {}) const {
    for (Case const &c : cases) {
      Texts entries;
      for (SString const &recipient : SString(c.recipients).SplitExact(" "))
        entries.push_back("SMTP " + Text(recipient));
      EXPECT_EQ(Route(entries, more), c.want) << c.why;
    }
  }
};

TEST_F(DecisionTest, AccountsAreFoundByAddressAndTakeTheMessageOnce) {
  Check({
      {"one account", "<ann@example.org>", "to ann (<ann@example.org>)"},
      {"case of the address", "<ANN@EXAMPLE.ORG>", "to ann (<ANN@EXAMPLE.ORG>)"},
      {"same address twice but for case", "<ann@example.org> <Ann@Example.Org>", "to ann (<ann@example.org>)"},
      {"two addresses of one account", "<ann@example.org> <ann.long@example.org>", "to ann (<ann@example.org>)"},
      {"two accounts keep their order", "<bob@example.org> <ann@example.org>",
       "to bob ann (<bob@example.org> <ann@example.org>)"},
      {"catch-all of its domain", "<anybody@second.example>", "to rest (<anybody@second.example>)"},
      {"catch-all once", "<one@second.example> <two@second.example>", "to rest (<one@second.example>)"},
      {"no domain: this host", "<carol>", "to home (<carol>)"},
      {"this host as localhost", "<carol@localhost>", "to home (<carol@localhost>)"},
      {"this host by its address", "<carol@[127.0.0.1]>", "to home (<carol@[127.0.0.1]>)"},
      {"address literal of an account", "<lit@[127.0.0.1]>", "to literal (<lit@[127.0.0.1]>)"},
      {"address in quotes before a local domain", "<\"inner@example.org\"@example.org>",
       "to quoted (<\"inner@example.org\"@example.org>)"},
  });
}

TEST_F(DecisionTest, AliasesGoThroughTheWholeDecision) {
  Check({
      {"two members", "<both@example.org>", "to ann bob (<ann@example.org> <bob@example.org>)"},
      {"member that is a recipient too", "<both@example.org> <bob@example.org>",
       "to bob ann (<bob@example.org> <ann@example.org>)"},
      {"remote member", "<AWAY@example.org>", "to ann (<ANN@example.org>) | host far.example: <x@far.example>"},
      {"a loop ends", "<loop@example.org>", "to bob (<bob@example.org>)"},
      {"broken member", "<broken@example.org>", "UnknownAccounts: "},
      {"alias in a domain that is not ours", "<remote@alias.example>", "to bob (<bob@example.org>)"},
  });
}

TEST_F(DecisionTest, WhatNobodyHasHereIsRefused) {
  Check({
      {"unknown user", "<nobody@example.org>", "UnknownAccounts: <nobody@example.org>"},
      {"null address", "<>", "UnknownAccounts: <>"},
      {"broken addresses have no text", "<a@b@c> <a@>", "UnknownAccounts: "},
      {"good ones go all the same", "<nobody@example.org> <ann@example.org> <x@far.example>",
       "to ann (<ann@example.org>) | UnknownAccounts: <nobody@example.org> | host far.example: <x@far.example>"},
      {"no catch-all for a quoted percent sign", "<\"a%b.example\"@example.org>",
       "UnknownAccounts: <\"a%b.example\"@example.org>"},
  });
}

TEST_F(DecisionTest, EachLocalDomainHasAPostmaster) {
  AddAccount("Postmaster", {});
  Check({
      {"any case, once", "<POSTMASTER@example.org> <postmaster@mail.example.org>",
       "to Postmaster (<POSTMASTER@example.org>)"},
      {"a catch-all comes first", "<postmaster@second.example>", "to rest (<postmaster@second.example>)"},
      {"not elsewhere", "<postmaster@far.example>", "host far.example: <postmaster@far.example>"},
  });
}

TEST_F(DecisionTest, PercentAddressesAreRelayedForWhomTheyMayBe) {
  Check({
      {"to a local domain, from anywhere", "<ann%example.org@example.org>",
       "to ann (<ann%example.org@example.org> <ann@example.org>)"},
      {"to a remote one, from a foreign sender", "<x%far.example@example.org>",
       "Unallowed%Addr: <x%far.example@example.org>"},
      {"the last one counts", "<x%far.example%example.org@example.org>", "Unallowed%Addr: <x%far.example@example.org>"},
      {"nothing in front", "<%far.example@example.org>", "UnknownAccounts: <%far.example@example.org>"},
      {"no domain of ours", "<x%far.example@near.example>", "host near.example: <x%far.example@near.example>"},
  });
  sender = "SMTP <anybody@example.org>";
  Check({{"allowed to our own", "<X%Far.Example@example.org>", "host far.example: <x@far.example>"}});
  sender = "SMTP<>";
  Check({{"not to the null sender", "<ann%example.org@example.org>", "Unallowed%Addr: <ann%example.org@example.org>"}});
  Config("ForeignPercentAddr", "yes");
  Check({{"allowed to all", "<X%Far.Example@example.org>", "host far.example: <x@far.example>"}});
}

TEST_F(DecisionTest, RemoteHostsGetTheirRecipientsTogether) {
  Check({
      {"by host", "<a@one.example> <b@two.example> <C@ONE.example>",
       "host one.example: <a@one.example> <C@ONE.example> | host two.example: <b@two.example>"},
      {"source route keeps its way, with an empty Host-To:", "<@relay.example,@next.example:x@far.example>",
       "host : <@relay.example,@next.example:x@far.example>"},
      {"source route to one of us is no route", "<@relay.example:ann@example.org>",
       "to ann (<@relay.example:ann@example.org>)"},
  });
  Setting("SMTP-Router", "/", "RoutingTable", {"one.example:relay.example", "*.example:*.via.example", "*:rest"});
  Check({
      {"the first line that matches", "<a@One.example> <b@two.example> <c@three.test> <@r.test:x@one.example>",
       "host : <@r.test:x@one.example> | host relay.example: <a@One.example> | host rest: <c@three.test> | "
       "host two.example.via.example: <b@two.example>"},
  });
}

TEST_F(DecisionTest, RewrittenDomainsAreTheirReplacement) {
  Setting("SMTP-Router", "/", "RewriteDomains",
          {"Old.Example:example.org", "gone.example:new.example", "none.example"});
  Check({
      {"local through its old name", "<ann@OLD.example>", "to ann (<ann@OLD.example>)"},
      {"remote gets the new name", "<x@gone.example>", "host new.example: <x@new.example>"},
      {"no replacement", "<x@none.example>", "host none.example: <x@none.example>"},
  });
}

TEST_F(DecisionTest, ForcedRoutingSendsAllButTheBypassHostsMailThroughTheTable) {
  Setting("SMTP-Router", "/", "RoutingTable", {"example.org:scanner.example"});
  setenv("ForceRouting", "yes", 1);
  Check({
      {"an account too", "<ann@example.org>", "host scanner.example: <ann@example.org>"},
      {"an account whose host the table leaves alone", "<carol@mail.example.org>",
       "to home (<carol@mail.example.org>)"},
      {"unknown here, known there", "<nobody@example.org>", "host scanner.example: <nobody@example.org>"},
  });
  setenv("ByPassIPaddr", "192.0.2.7", 1);
  Check({
      {"back from the scanner", "<ann@example.org>", "to ann (<ann@example.org>)"},
      {"unknown after all", "<nobody@example.org>", "UnknownAccounts: <nobody@example.org>"},
      {"out, past the table", "<x@far.example>", "host far.example: <x@far.example>"},
  });
}

TEST_F(DecisionTest, ListMembersGetOneCopyThroughAListThatWantsThat) {
  AddAccount("news", {"news@example.org"}, {{"List-Suppress-Duplicates", {"yes"}}, {"Local-Delivery", {"Shelf"}}});
  AddAccount("chat", {"chat@example.org"});
  AddAccount("Dora", {"dora@example.org"}, {{"Subscribed-Lists-Immediate", {"news"}}, {"Local-Delivery", {"Shelf"}}});
  AddAccount("emil", {"emil@example.org"},
             {{"Subscribed-Lists-Immediate", {"news", "chat"}}, {"Local-Delivery", {"Shelf"}}});
  AddAccount("far1", {}, {{"Remote-SMTP-Address", {"<Fay@far.example>"}}, {"Subscribed-Lists-Immediate", {"news"}}});
  Check({
      {"member by account", "<news@example.org> <dora@example.org>", "to news (<news@example.org>)"},
      {"remote member by address", "<fay@far.example> <news@example.org>", "to news (<news@example.org>)"},
      {"another list keeps the copy", "<news@example.org> <chat@example.org> <emil@example.org> <dora@example.org>",
       "to news chat emil (<news@example.org> <chat@example.org> <emil@example.org>)"},
      {"list alone", "<chat@example.org> <dora@example.org>", "to chat Dora (<chat@example.org> <dora@example.org>)"},
  });
}

// What Channel-To! records does not keep a recipient from being routed again; only null entries count there.
TEST_F(DecisionTest, RecordedEntriesAreRoutedAgain) {
  Check({{"recorded", "<ann@example.org>", "to ann (<ann@example.org>)"}},
        {"Channel-To! SMTP <ann@example.org>", "Channel-To! SMTP <>"});
}

class Steps : public SRouteObserver {
public:
  void Note(SString const &entry, SRouteStep step, SString const &detail) override {
    told.push_back(Text(entry).substr(5) + ": " + RouteStepName(step) + (detail.Length() > 0 ? " " : "") +
                   Text(detail));
  }
  Texts told;
};

TEST_F(DecisionTest, ExplainTellsTheStepsAndWritesNothing) {
  Setting("SMTP-Router", "/", "RewriteDomains", {"old.example:example.org"});
  SSMTPRouterModule router;
  ASSERT_EQ(router.LoadEnv(), 1u);
  Steps steps;
  EXPECT_EQ(
      router.Explain({"SMTP <away@old.example>", "SMTP <any@second.example>", "SMTP <x%y.example@example.org>"}, steps),
      1);
  EXPECT_EQ(Joined(steps.told, "\n"),
            "<away@old.example>: setting RewriteDomains old.example:example.org\n"
            "<away@old.example>: host example.org\n"
            "<away@old.example>: alias SMTP <x@far.example>\n"
            "<away@old.example>: alias SMTP <ANN@example.org>\n"
            "<any@second.example>: local domain second.example\n"
            "<any@second.example>: setting LocalMailDomains\n"
            "<any@second.example>: catch-all rest\n"
            "<any@second.example>: account rest\n"
            "<x%y.example@example.org>: local domain example.org\n"
            "<x%y.example@example.org>: setting LocalMailDomains\n"
            "<x%y.example@example.org>: percent refused SMTP <x%y.example@example.org>\n"
            "<x@far.example>: remote domain far.example\n"
            "<x@far.example>: sent to far.example\n"
            "<ANN@example.org>: account ann");
  EXPECT_EQ(CountIn("control") + CountIn("messages") + CountIn("deferred"), 0);
}

TEST_F(DecisionTest, TenThousandRecipientsOfOneMessage) {
  Texts entries;
  for (int i = 0; i < 10000; ++i) entries.push_back("SMTP <user" + std::to_string(i) + "@far.example>");
  Route(entries);
  Texts const copies = PathsOf("SMTP-Deliver");
  ASSERT_EQ(copies.size(), 1u);
  EXPECT_EQ(ReadControl(copies[0]).Get("Channel-To:").Length(), 10000);
}

}  // namespace
