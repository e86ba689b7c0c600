#include "brenthaven/lists/accountsearch.h"

#include "tests/lists/list_fixture.h"

namespace {

std::string Numbered(std::string const &stem, int number) {
  std::string const digits = std::to_string(1000 + number).substr(1);
  return stem + digits;
}

}  // namespace

class SearchTest : public ListTest {
protected:
  static void PutUser(std::string const &uid, Attributes attributes) {
    attributes.try_emplace("Name", Strings{uid});
    Put(uid, attributes);
  }
  static void PutUsers(std::string const &stem, int count) {
    SAccountDBMod store;
    for (int i = 0; i < count; ++i) PutUser(Numbered(stem, i), {{"SMTP-Address", {Numbered(stem, i) + "@x.example"}}});
  }
  // UIDs found by a key, by a search that the test has prepared.
  static Strings Found(SAccountSearch &search, char const *key) {
    search.SetKey(key);
    search.KeySearch();
    return Strs(search.GetUIDs());
  }
  static Strings Found(char const *attribute, char const *key) {
    SAccountSearch search;
    search.SetSearchAttribute(attribute);
    return Found(search, key);
  }
};

TEST_F(SearchTest, KeysWithAndWithoutWildcards) {
  PutUser("Joe", {{"SMTP-Address", {"joe.smith@x.example", "JS@x.example"}}, {"Subscribed-Lists", {"Q"}}});
  PutUser("Jim", {{"SMTP-Address", {"<jim.smithson@x.example>"}}, {"Name", {"James Smithson"}}});
  PutUser("High", {{"SMTP-Address", {"z\xc3\xa9@x.example"}}});
  struct Case {
    char const *attribute, *key;
    Strings uids;
    char const *why = "";
  };
  for (Case const &c : {
           Case{"SMTP-Address", "JOE.smith@x.example", {"Joe"}},
           Case{"SMTP-Address", "<joe.smith@x.example>", {"Joe"}},
           Case{"SMTP-Address", "joe.smith", {}},
           Case{"SMTP-Address", "J*", {"Jim", "Joe"}, "the order of the index; one of two addresses"},
           Case{"SMTP-Address", "*smith", {"Jim", "Joe"}, "found in the middle of a value too"},
           Case{"SMTP-Address", "*smith@*", {"Joe"}},
           Case{"SMTP-Address", "j*@x", {"Jim", "Joe"}},
           Case{"SMTP-Address", "j*s@", {"Joe"}},
           Case{"SMTP-Address", "*j.m", {"Jim"}, "any byte in an expression"},
           Case{"SMTP-Address", "j.m*", {}, "a dot in a prefix"},
           Case{"SMTP-Address", "**i**m**", {"Jim", "Joe"}},
           Case{"SMTP-Address", "z*", {}, "a byte above 0x7e right behind the prefix"},
           Case{"SMTP-Primary-Address", "js*", {}},
           Case{"SMTP-Primary-Address", "jim*", {"Jim"}, "brackets are none of the address"},
           Case{"SMTP-Primary-Address", "js@x.example", {}},
           Case{"Name", "james smithson", {"Jim"}},
           Case{"Name", "James*", {"Jim"}},
           Case{"Subscribed-Lists", "q", {}, "an index that keeps case is not found by a key in lower case"},
           Case{"Home-URL", "*", {}, "no index"},
           Case{"SMTP-Address", "", {}},
       })
    EXPECT_EQ(Found(c.attribute, c.key), c.uids) << c.attribute << " " << c.key << ": " << c.why;
}

TEST_F(SearchTest, PagesOfTheResult) {
  PutUsers("p", 30);
  SAccountSearch search;
  search.SetRange(11, 20);
  Strings wanted;
  for (int i = 10; i < 20; ++i) wanted.push_back(Numbered("p", i));
  EXPECT_EQ(Found(search, "p*"), wanted);
  EXPECT_EQ(Strs(search.GetNames())[0], "p010@x.example");
  EXPECT_EQ(search.GetHits(), 30);

  SAccountSearch none;
  none.SetRange(5, 4);
  EXPECT_EQ(Found(none, "p*"), Strings());
  EXPECT_EQ(none.GetHits(), 30);
}

TEST_F(SearchTest, UidOfTwoValuesCountsOnceOnlyWhenGiven) {
  for (char const *uid : {"q1", "q2", "q3"})
    PutUser(uid, {{"SMTP-Address", {std::string(uid) + "@a.example", std::string(uid) + "@b.example"}}});
  SAccountSearch all;
  EXPECT_EQ(Found(all, "q*"), (Strings{"q1", "q2", "q3"}));
  EXPECT_EQ(all.GetHits(), 3);
  EXPECT_EQ(Found(all, "q*"), (Strings{"q1", "q2", "q3"})) << "a second search adds what is new";
  SAccountSearch page;
  page.SetRange(3, 4);
  EXPECT_EQ(Found(page, "q*"), (Strings{"q2", "q3"})) << "both of q1 stand in front";
}

TEST_F(SearchTest, LongResultsComeInSlicesAndStopEarly) {
  {
    SAccountDBMod store;
    for (int i = 0; i < 650; ++i) PutUser(Numbered("s", i), {{"Name", {"Same"}}});
  }
  SAccountSearch all;
  all.SetSearchAttribute("Name");
  Strings const found = Found(all, "*ame");
  ASSERT_EQ(found.size(), 650U) << "equal values at the end of a slice";
  EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));

  SAccountSearch page;
  page.SetSearchAttribute("Name");
  page.SetRange(1, 20);
  EXPECT_EQ(Found(page, "same*").size(), 20U);
  EXPECT_EQ(page.GetHits(), 120) << "enough to tell that there is more";
  page.SetRange(121, 125);
  EXPECT_EQ(Found(page, "same*").size(), 25U) << "the next search looks on from its own first value";
}

TEST_F(SearchTest, UsersByKindAndDirectoryAccess) {
  Put("nameless", {{"SMTP-Address", {"u-nameless@x.example"}}});
  Put("u-list", {{"Name", {"L"}}, {"List-Name", {"u-list"}}, {"SMTP-Address", {"u-list@x.example"}}});
  Put("u-owner", {{"Name", {"O"}}, {"Expanded-Delivery", {"x"}}, {"SMTP-Address", {"u-owner@x.example"}}});
  Strings const letters = {"n", "l", "f", "d", "none", "local"};
  for (std::string const &access : letters)
    PutUser("u" + access, {{"SMTP-Address", {"u" + access + "@x.example"}}, {"Directory-Access", {access}}});
  PutUser("u-unset", {{"SMTP-Address", {"u-unset@x.example"}}});
  struct Case {
    char const *environment;
    int level;
    Strings uids;
  };
  for (Case const &c : {
           Case{nullptr, 0, {"u-unset", "ud", "uf", "ul", "ulocal", "un", "unone"}},
           Case{nullptr, 1, {"uf", "ul", "ulocal"}},
           Case{nullptr, 2, {"uf"}},
           Case{"local", 1, {"u-unset", "ud", "uf", "ul", "ulocal"}},
           Case{"local", 2, {"uf"}},
           Case{"full", 2, {"u-unset", "ud", "uf"}},
       }) {
    if (c.environment != nullptr) setenv("DefaultDirectoryAccess", c.environment, 1);
    SAccountSearch search;
    search.SetAccessLevel(c.level);
    EXPECT_EQ(Found(search, "u*"), c.uids) << (c.environment ? c.environment : "unset") << " at level " << c.level;
  }
}

TEST_F(SearchTest, ExcludedAccountsAreNoHits) {
  PutUser("Postmaster", {{"SMTP-Address", {"v-post@x.example"}}, {"Account-Delivery", {"Vera"}}});
  PutUser("Vera", {{"SMTP-Address", {"vera@x.example"}}});
  PutUser("Error-Handler", {{"SMTP-Address", {"v-errors@x.example"}}});
  PutUser("Vic", {{"SMTP-Address", {"vic@x.example"}}});
  SAccountSearch search;
  search.ExcludePostmasters();
  search.ExcludeReserved();
  EXPECT_EQ(Found(search, "v*"), Strings{"Vic"});
  EXPECT_EQ(search.GetHits(), 1);
}

TEST_F(SearchTest, ListsByPolicyAndByTheirAddresses) {
  Put("w-open", {{"List-Name", {"w-open"}}, {"SMTP-Address", {"Z-open@x.example", "a-open@x.example"}}});
  Put("w-local", {{"List-Name", {"w-local"}},
                  {"SMTP-Address", {"m-local@x.example"}},
                  {"List-Remote-Subscriber-Policy", {"closed"}}});
  Put("w-shut", {{"List-Name", {"w-shut"}},
                 {"SMTP-Address", {"b-shut@x.example"}},
                 {"List-Remote-Subscriber-Policy", {"closed"}},
                 {"List-Local-Subscriber-Policy", {"closed"}}});
  PutUser("w-user", {{"SMTP-Address", {"w-user@x.example"}}});
  auto const lists = [](auto prepare, char const *attribute, char const *key) {
    SAccountSearch search;
    search.SetKind(SAccountSearch::kLists);
    search.SetSearchAttribute(attribute);
    prepare(search);
    return Found(search, key);
  };
  auto const any = [](SAccountSearch &) {};
  EXPECT_EQ(lists(any, "List-Name", "w*"), (Strings{"w-local", "w-open", "w-shut"}));
  EXPECT_EQ(lists([](SAccountSearch &s) { s.SetRemoteListsOnly(); }, "List-Name", "w*"), Strings{"w-open"});
  EXPECT_EQ(lists([](SAccountSearch &s) { s.SetAvailableListsOnly("Ann"); }, "List-Name", "w*"),
            (Strings{"w-local", "w-open"}));
  EXPECT_EQ(lists(any, "SMTP-Address", "w-user@x.example"), Strings());
  EXPECT_EQ(lists(any, "SMTP-Primary-Address", "*"), (Strings{"w-shut", "w-local", "news-list", "w-open"}))
      << "in the order of their first addresses";
  EXPECT_EQ(lists(any, "SMTP-Primary-Address", "z*"), Strings{"w-open"});
  EXPECT_EQ(lists(any, "SMTP-Primary-Address", "a-*"), Strings()) << "a second address";
  EXPECT_EQ(lists([](SAccountSearch &s) { s.SetAvailableListsOnly("Ann"); }, "SMTP-Primary-Address", "*"),
            (Strings{"w-local", "news-list", "w-open"}));
}

TEST_F(SearchTest, SubscribersOfOneList) {
  TrustEverybody();
  for (char const *address : {"Cleo@example.org", "Ann@example.org", "carl@far.example", "4u@far.example"})
    ASSERT_EQ(Subscribe(address), kListSuccess) << address;
  struct Case {
    char const *list, *key;
    Strings names;
  };
  for (Case const &c : {
           Case{"news", "*", {"Ann@example.org", "Cleo@example.org", "4u@far.example", "carl@far.example"}},
           Case{"news-list", "c*", {"Cleo@example.org", "carl@far.example"}},
           Case{"news", "CARL@far.example", {"carl@far.example"}},
           Case{"news", "*far", {}},
           Case{"news", "bob@example.org", {}},
           Case{"", "*", {}},
       }) {
    SAccountSearch search;
    search.SetKind(SAccountSearch::kSubscribers);
    search.SetList(c.list);
    Found(search, c.key);
    EXPECT_EQ(Strs(search.GetNames()), c.names)
        << c.list << " " << c.key << ": those with a mailbox here, and then the others";
  }
  for (unsigned alphabetic : {0U, 1U}) {
    SAccountSearch search;
    search.SetKind(SAccountSearch::kSubscribers);
    search.SetList("news");
    search.KeyClassSearch(alphabetic);
    EXPECT_EQ(Strs(search.GetNames()), alphabetic ? Strings{"4u@far.example"} : Strings()) << alphabetic;
  }
}

TEST_F(SearchTest, ValuesThatBeginWithNoLetter) {
  for (std::string const address : {"!a", "0a", "9z", ":a", "_a", "{a", "~a", "a0"})
    PutUser(address, {{"SMTP-Address", {address + "@x.example"}}});
  for (unsigned alphabetic : {0U, 1U}) {
    SAccountSearch search;
    search.KeyClassSearch(alphabetic);
    EXPECT_EQ(Strs(search.GetUIDs()), alphabetic ? (Strings{"!a", "0a", "9z", ":a", "_a", "{a", "~a"})
                                                 : (Strings{"!a", ":a", "_a", "{a", "~a"}));
  }
}

TEST_F(SearchTest, HostileKeysFindNothingAndEnd) {
  PutUsers("h", 3);
  std::string stars, nested(1000, '(');
  while (stars.size() < 1000) stars += "*a";
  for (std::string const &key :
       {std::string("*("), std::string("*["), std::string("*\\"), std::string("*a{1000}{1000}"), nested + "*x",
        stars + "*", std::string(1 << 20, 'h') + "*", std::string("h\0*", 3), std::string("*\xff\0x", 4)}) {
    for (int kind : {1, 2, 3}) {
      SAccountSearch search;
      search.SetKind(kind);
      search.SetList("news");
      search.SetKey(SString(key));
      search.KeySearch();
      EXPECT_EQ(search.GetHits(), 0) << key.substr(0, 20) << " of kind " << kind;
    }
  }
  SAccountSearch search;
  EXPECT_EQ(Found(search, "***").size(), 7U) << "every user, once";
}
