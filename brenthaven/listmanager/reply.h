// brenthaven/listmanager/reply.h - the one mail that answers a request.
#pragma once
#include <vector>

#include "brenthaven/address/address821.h"
#include "brenthaven/listmanager/runner.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"

struct SListAnswer {
  S821Address to;
  SString from;                        // local@domain: the address that the request went to
  std::vector<SListOutcome> outcomes;  // of its lines, in order
};

// Sends it, with the texts of listtexts.h: for each outcome the line behind "> ", then the word for the outcome and its
// text, then what was asked for. The end, which tells of the help, is left out behind the help itself. It has the null
// sender and is marked as automatic, so that nobody's program answers it. 1 when it is durably in the spool; 0, with a
// line in the log, when it could not be written.
unsigned int SendListAnswer(SModule &module, SHeader const &request, SListAnswer const &answer);
