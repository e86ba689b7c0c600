// brenthaven/router/judge.h - the sideline judge: whether a message may take the normal road at all.
#pragma once
#include <bitset>
#include <memory>

#include "brenthaven/router/filter.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/returned.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The rules, by the numbers of their reasons. They are applied in another order: the cheap ones first (judge.cpp).
enum SSidelineRule {
  kSidelineNullAddress,    // the null sender
  kSidelineNoDomain,       // a sender that is not null and has no domain
  kSidelineHostDomain,     // a sender whose domain has no dot
  kSidelineUnknownDomain,  // a sender whose domain has no address
  kSidelineNoMxDomain,     // a sender whose domain has no MX record
  kSidelineIpDomain,       // a sender whose domain is an IP address
  kSidelineBlockList,      // a client that the block list names
  kSidelineRecipients,     // too many recipients of the message
  kSidelineTcpRecipients,  // too many recipients of the connection
  kSidelineHeaderFilter,   // a header that the filter hits
  kSidelineRules,          // how many there are
};

// What the section "/Config" of "SMTP-Router" says about sidelining. Rules and log flags are on for exactly "yes".
struct SSidelineSettings {
  std::bitset<kSidelineRules> rules;  // those that are applied
  std::bitset<kSidelineRules> logs;   // those whose hits are logged
  int mostRecipients = 0;             // of one message
  int mostTcpRecipients = 0;          // of one connection
  SString blockList;                  // its zone; empty: DefaultBlockListZone of the environment

  void Load(SNamedStringList const &config);
};

// What becomes of a sidelined message, by the values of the key "SideLine" in "/Error-Actions".
struct SSidelineAction {
  SString action;     // the last of kActionReturn, kActionDelete and kActionHold; empty is as kActionHold
  bool log = false;   // "log" stands there; of no further effect
  bool mail = false;  // "mail" stands there; of no further effect

  void Load(SStringList const &values);  // a value that is none of the five words is passed over
};

// Decides from sender, number of recipients and header, before any routing. With every rule off, the default of each,
// the judge passes each message without reading a file or asking a name server. Files are read for the header filter
// alone, and names are asked for by the two rules on domains and the block list alone.
class SSidelineJudge {
public:
  // Takes the lines of SideLineDetailFilters (filter.h). 0 refuses to start the module: badLine, never null, takes the
  // line at fault.
  unsigned int InitFilters(SStringList const &lines, SString *badLine);
  // 1: the message passes. 0: it is sidelined, and reason holds the text of the first rule that hit, which is logged if
  // the settings want that. A message with kSidelinePlace in its Trace: was released by a person, and passes. So does a
  // report of this system (IsReport): a rule against the null sender means that of other hosts.
  //
  // The null sender has no domain, and passes the rules on domains. Any other sender without one, or one that is no
  // address at all, hits those that are on. A client is listed only if the block list answers.
  unsigned int Judge(SControl &control, SSidelineSettings const &settings, SString &reason) const;

  // What is done with the module's current message after that (returned.h), as the result of its ProcessMail.
  //
  //   Delete  the message is dropped
  //   return  it is dropped once its sender has a returned mail with the reason. If that can't be written, it is held.
  //   hold    it waits at kSidelinePlace as an error record "MODULE:ProcessMailAllError (SideLined)", the reason as
  //           Error-Text:. It is as new to the router as it was: the pass that held it leaves kSidelinePlace in Trace:,
  //           and not the module's name.
  //
  // 1: done. 0: nothing was done, and the control is as it came, to be judged again later.
  static unsigned int Sideline(SModule &module, SSidelineAction const &action, SString const &reason);

private:
  std::shared_ptr<SHeaderFilter const> _filter;  // null: none was read
};
