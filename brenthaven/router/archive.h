// brenthaven/router/archive.h - archive rules: whose mail is copied to which archive.
#pragma once
#include <vector>

#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The addresses in values of Raw-Mail-From: or Raw-Rcpt-To:, each in one pair of angle brackets: "<a@b>". Lines with a
// ":" are passed over, so that an address with a source route is not archived.
SStringList RawAddresses(SStringList const &values);

// One rule, "<sender><recipient><target><mailbox>":
//
//   sender, recipient  patterns of a whole address: "." is a dot, "*" any text; case counts
//   target             the archive's host, "host" or "host#port"
//   mailbox            where the copy goes there; "<>" for the recipient's own address
class SArchiveRule {
public:
  explicit SArchiveRule(SString const &text);
  // Why the rule does nothing; empty when it is good.
  SString const &Fault() const { return _fault; }
  // Adds a copy ("SMTP <address>" under the target, with its port) for each recipient that the rule takes, when it
  // takes one of the senders.
  void AddCopies(SStringList const &senders, SStringList const &recipients, SNamedStringList &copies) const;

private:
  SString _fault;
  SPerlRegex _sender;
  SPerlRegex _recipient;
  SString _target;
  SString _mailbox;  // empty: the recipient's own address
};

// The rules that are good.
class SArchiveRules {
public:
  explicit SArchiveRules(SStringList const &lines);
  // The copies of a message, under their targets, each once.
  void AddCopies(SStringList const &senders, SStringList const &recipients, SNamedStringList &copies) const;

private:
  std::vector<std::unique_ptr<SArchiveRule>> _rules;  // an expression does not move
};
