#include "tests/command/command_fixture.h"

class SearchCommandTest : public CommandTest {
protected:
  SearchCommandTest() {
    Init();
    for (std::string const uid : {"ann", "andy", "bob"})
      Good({"account", "add", uid, "--address", uid + "@example.org", "--name", "The " + uid});
    Good({"account", "set", "news", "List-Name", "news"});
    Good({"account", "set", "news", "SMTP-Address", "a-news@example.org"});
    Good({"account", "set", "bob", "Subscribed-Lists", "news"});
  }
};

TEST_F(SearchCommandTest, PrintsUidsAndWhatWasFound) {
  EXPECT_EQ(Good({"account", "search", "an*"}), "andy\tandy@example.org\nann\tann@example.org\n");
  EXPECT_EQ(Good({"account", "search", "An*", "--first", "2", "--last", "3"}), "ann\tann@example.org\n");
  EXPECT_EQ(Good({"account", "search", "an*", "--first", "3"}), "") << "a page behind the last hit";
  EXPECT_EQ(Good({"account", "search", "*bob", "--attribute", "Name"}), "bob\tthe bob\n");
  EXPECT_EQ(Good({"account", "search", "a-*", "--kind", "lists"}), "news\ta-news@example.org\n");
  EXPECT_EQ(Good({"account", "search", "*", "--kind", "subscribers", "--list", "news"}), "bob\tbob@example.org\n");
  EXPECT_EQ(Good({"account", "search", "ann@example.org", "--attribute", "SMTP-Primary-Address", "--json"}),
            "{\n  \"hits\": 1,\n  \"found\": [\n    {\n      \"uid\": \"ann\",\n      \"name\": \"ann@example.org\"\n"
            "    }\n  ]\n}\n");
}

TEST_F(SearchCommandTest, WhatCannotBeSearchedIsRefused) {
  struct {
    Words args;
    int code;
    char const *err;
  } const rows[] = {
      {{"z*"}, EX_NOUSER, "nothing matches z*"},
      {{"*", "--kind", "people"}, EX_USAGE, "--kind"},
      {{"*", "--kind", "subscribers"}, EX_USAGE, "--list"},
      {{"*", "--list", "news"}, EX_USAGE, "--list"},
      {{"*", "--kind", "subscribers", "--list", "nowhere"}, EX_NOUSER, "no such list: nowhere"},
      {{"*", "--attribute", "Home-URL"}, EX_DATAERR, "it is no indexed attribute"},
      {{"*", "--attribute", "Nonsense"}, EX_DATAERR, "it is no indexed attribute"},
      {{"*", "--first", "0"}, EX_USAGE, "--first"},
      {{"*", "--first", "5", "--last", "4"}, EX_USAGE, "--last is below --first"},
  };
  for (auto const &row : rows) {
    Words args = {"account", "search"};
    args.insert(args.end(), row.args.begin(), row.args.end());
    ProgramRun const run = Brenthaven(args);
    EXPECT_EQ(run.code, row.code) << row.err << ": " << run.err;
    EXPECT_NE(run.err.find(row.err), std::string::npos) << run.err;
  }
}
