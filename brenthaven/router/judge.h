// brenthaven/router/judge.h - the sideline judge: whether a message may take the normal road at all.
#pragma once
#include "brenthaven/spool/control.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// What the section "/Config" of "SMTP-Router" says about sidelining. Rules and log flags are on for exactly "yes".
struct SSidelineSettings {
  bool nullAddress = false;
  bool noDomainAddress = false;
  bool onlyHostDomain = false;
  bool domain = false;
  bool noMxDomain = false;
  bool ipDomain = false;
  bool destNumExceedMsg = false;
  bool tcpDestNumExceedMsg = false;
  bool rbl = false;
  bool detail = false;
  int destNumMax = 0;     // most recipients of one message
  int tcpDestNumMax = 0;  // most recipients of one connection
  SString rblServer;      // zone of the block list

  bool logNullFrom = false;
  bool logNoDomain = false;
  bool logOnlyHost = false;
  bool logLookupFail = false;
  bool logMxLookupFail = false;
  bool logIpDomain = false;
  bool logRblCheck = false;
  bool logNumRecipient = false;
  bool logNumRecipientTcp = false;
  bool logDetailFilter = false;

  void Load(SNamedStringList const &config);
};

// What becomes of a sidelined message, by the values of the key "SideLine" in "/Error-Actions".
struct SSidelineAction {
  SString action;     // the last of "return", "Delete" and "hold"; empty is as "hold"
  bool log = false;   // "log" stands there; of no further effect
  bool mail = false;  // "mail" stands there; of no further effect

  void Load(SStringList const &values);  // a value that is none of the five words is passed over
};

// Decides from sender, number of recipients and header, before any routing. With every rule off, the default of each,
// the judge passes each message without reading a file or asking a name server. That is all it does at present: no
// rule is applied, whatever the settings say.
class SSidelineJudge {
public:
  // The lines of SideLineDetailFilters; 0 refuses to start the module. No filter is read at present: 1.
  unsigned int InitFilters(SStringList const &lines);
  // 1: the message passes. 0: it is sidelined, and reason holds the text of the rule.
  unsigned int Judge(SControl &control, SSidelineSettings const &settings, SString &reason);
  // What is done with a sidelined message, as the result of its ProcessMail. At present it waits in the queue: 0.
  unsigned int Sideline(SControl &control, SSidelineAction const &action, SString const &reason);
};
