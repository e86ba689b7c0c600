// brenthaven/lists/sbouncefilter.h - mail that comes back to a list: told from postings, and laid to the subscriber
// that it came from.
#pragma once
#include <deque>

#include "brenthaven/address/address821.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class SModule;

// What FilterBounce says about a message.
enum SBounceResult {
  kBounceUncounted = 1,  // a bounce of nobody known, or one that could not be counted: it is dropped
  kBounceNot = 2,        // a posting
  kBounceCounted = 3,    // a subscriber's; counted, or the subscriber was taken off
};

// Two settings of the list exploder, both lists of values:
//
//   BounceFilter     "Subject: undeliverable": header field, blank, Perl pattern, case ignored. A match in a message
//                    with a sender makes it a bounce. One without a sender always is.
//   BounceRewrites   groups of commands, each ended by "end". The first group that gives an address names the
//                    subscriber:
//                      h FIELD PATTERN   the field's first value must match
//                      m PATTERN         what the next r looks for in the body
//                      r REPLACEMENT     what is found, rewritten: an address, or host!user, or a local part in the
//                                        domain of From:
//
// A field may be named with or without its ":". The environment's MaxBounceCount says how many bounces take a
// subscriber off all lists; unset or 0, bounces are not counted.
class SBounceFilter {
public:
  explicit SBounceFilter(SModule *module);  // borrowed; names the log lines and the messages of actions
  SBounceFilter(SBounceFilter const &) = delete;
  SBounceFilter &operator=(SBounceFilter const &) = delete;

  unsigned int CheckHeader(SHeader &header);  // 1 when a pattern of BounceFilter matches
  // 1 when the group, without its "end", gave an address (GetBounceAddress).
  unsigned int CheckPattern(SControl &control, SHeader &header, SStringList group);
  unsigned int CheckPatterns(SControl &control, SHeader &header);  // the groups of BounceRewrites; 1 at the first
  // An SBounceResult. The list's state is read, and committed or left uncommitted; its lock is given up before
  // subscriptions are ended, and not held by the caller before.
  int FilterBounce(SControl &control, SHeader &header, SListState &state);

  // The second half: a bounce of this address is counted, and ends its subscriptions at the limit. For a caller who
  // knows the address, from a return path that names it.
  int CountBounce(SString const &address, SListState &state);

  SString const &GetBounceAddress() const { return _address; }  // the one found last

private:
  struct HeaderPattern {
    HeaderPattern(SString const &name, SString const &expression) : field(name), pattern(expression, "i") {}
    SString field;
    SPerlRegex pattern;
  };

  bool _TakeAddress(SHeader &header, SString text);
  bool _UnsubscribeAll(SString const &uid, SString const &address);
  void _LogInfo(SString const &text) const;

  std::deque<HeaderPattern> _patterns;  // a compiled expression can't be moved
  SStringList _rewrites;
  bool _rewritesLoaded = false;
  SModule *_module;
  SString _address;
};

// 1 when no automatic answer may go to the address: it is a program's by its name, or the header says that the message
// was forwarded or sent by a program itself.
int NoReply(S821Address const &address, SHeader const &header);
