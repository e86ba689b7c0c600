// brenthaven/router/filter.h - the header filter language: lines that together say yes or no about a message's header.
//
//   Subject   (*lottery*)       and
//   X-Mailer: (bulk|mass mail)  notor
//   From      (@example\.org)   and
//
// Three words a line, between blanks and tabs; blanks within parentheses do not split. Lines of white space are passed
// over, and a CR LF at a line's end is no part of it.
//
//   1  a field name in any case, with or without its colon
//   2  in parentheses a regular expression in the system's Perl syntax, in which each "*" is written as ".*": that is
//      so behind a backslash and in a bracket too. Case counts; the match may stand anywhere in the value. ISO-2022-JP
//      text, ESC $ B to ESC ( B or ESC ( J, stands for its bytes, "*" and parentheses included.
//   3  in any case "and", "or", "notand" (and not), "notor" (or not), which join this line with the NEXT one, or "not",
//      which negates the first line. Nothing is joined by "not": the line behind it has no effect.
//
// Lines are evaluated in order, without precedence. A line hits when a value of its field matches. A line whose field
// the header lacks changes nothing, but its operator joins all the same. Before the first line the answer is no.
#pragma once
#include <deque>
#include <memory>

#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class SHeaderFilter {
public:
  SHeaderFilter() = default;  // of no line: hits nothing
  SHeaderFilter(SHeaderFilter const &) = delete;
  SHeaderFilter &operator=(SHeaderFilter const &) = delete;

  // The filter of these lines. Null when one of them is not as above, or its expression does not compile: badLine,
  // never null, takes it. The last filter made is kept for the next call with equal lines, so that a process which
  // reads its settings for each message compiles once.
  static std::shared_ptr<SHeaderFilter const> Of(SStringList const &lines, SString *badLine);

  bool IsEmpty() const { return _lines.empty(); }
  bool Hits(SHeader const &header) const;  // in time linear in the header for any one filter

private:
  enum Operator { kAnd, kNot, kOr, kNotAnd, kNotOr };
  struct Line {
    SString key;  // in lower case, with its colon
    SPerlRegex pattern;
    Operator op;
    bool Hits(SStringList const &values) const;
    bool Join(bool result, Line const &next, SStringList const &values) const;
  };
  static bool _ReadOperator(SString const &word, Operator *op);
  bool _Add(SString const &line);

  std::deque<Line> _lines;  // expressions stay where they were compiled
};
