#include <gtest/gtest.h>

#include "brenthaven/address/parser822.h"

namespace {

TEST(BogusAddress, MakesTheBestOfIt) {
  struct {
    char const *text;
    char const *want;
    char const *why;
  } const table[] = {
      {"", "<>", "nothing"},
      {"<>", "<>", "null"},
      {" <  > ", "<>", "brackets around nothing"},
      {"@", "<>", "an at sign alone"},
      {"@ @", "<>", "two of them"},
      {"jo@example.org", "<jo@example.org>", "nothing to mend"},
      {"Jo <jo@example.org> x", "<jo@example.org>", "text around brackets"},
      {"<<jo@example.org>>", "<jo@example.org>", "doubled brackets"},
      {"Jo <x <jo@example.org> y> z", "<jo@example.org>", "nested brackets: the innermost"},
      {"<jo@example.org", "<jo@example.org>", "an open bracket"},
      {"jo @ example . org", "<jo@example.org>", "blanks"},
      {"jo@example..org", "<jo@example.org>", "doubled dots"},
      {"jo@.example,org.", "<jo@example.org>", "dots at the ends, a comma for a dot"},
      {"jo@@example.org", "<\"jo@\"@example.org>", "what stands before the last at sign is quoted"},
      {"jo@a@example.org", "<\"jo@a\"@example.org>", "even when it holds one"},
      {"@a,@b:jo@example..org", "<jo@example.org>", "a route is dropped when its address needs mending"},
      {"a@b@example..org", "<>", "two at signs and a broken domain"},
      {"jo@10.0.0.1", "<jo@[10.0.0.1]>", "a dotted quad gets its brackets"},
      {"jo@10.0.0.256", "<>", "if it is one"},
      {"jo doe@example.org", "<jodoe@example.org>", "blanks vanish where a lenient parser passes them"},
      {"jo(x)@example.org", "<\"jo(x)\"@example.org>", "otherwise the local part is quoted"},
      {"jo\"x@example.org", "<>", "which a quote in it prevents"},
      {"@example.org", "<\"\"@example.org>", "no local part: an empty quoted one"},
      {"jo@", "<jo>", "no domain"},
      {"jo", "<jo>", "a local name"},
      {"jo@exa mple.org", "<jo@exa.mple.org>", "a blank for a dot"},
      {"jo@-example.org", "<>", "a domain beyond help"},
  };
  for (auto const &row : table) EXPECT_EQ(FixBogusAddress(row.text), row.want) << row.text << ": " << row.why;
}

}  // namespace
